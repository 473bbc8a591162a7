#include "queue_listener.h"

#include "error_output.h"

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <exception>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <vector>

namespace {

constexpr int kQueueMode = 0644;
constexpr int kSent = 0;
constexpr int kLookupFailed = 100;
constexpr int kNoQueue = 101;
constexpr int kNotSent = 102;

} // namespace

T_MSGQ_service::T_MSGQ_service(int key, void (*callback)(void*), unsigned long size)
    : size_(size), id_(msgget(key, IPC_CREAT | kQueueMode)), key_(key), callback_(callback) {}

int T_MSGQ_service::server_start() {
    recv_thread_create();
    return 0;
}

int T_MSGQ_service::server_stop() {
    recv_thread_destroy();
    return 0;
}

void T_MSGQ_service::announce_stop() {
    __atomic_store_n(&stop_, 1, __ATOMIC_RELEASE);
}

bool T_MSGQ_service::is_stopping() const {
    return __atomic_load_n(&stop_, __ATOMIC_ACQUIRE) != 0;
}

void T_MSGQ_service::remove_msgq() const {
    if (id_ != -1) {
        (void)msgctl(id_, IPC_RMID, nullptr); // fails when somebody else has removed it
    }
}

// The thread must not take the signals that stop the daemon: msgrcv() is never restarted after a handler (signal(7)),
// and each stop would be reported as an error. A thread inherits the mask of the one that makes it.
void T_MSGQ_service::recv_thread_create() {
    sigset_t stop_signals;
    sigset_t before;
    sigemptyset(&stop_signals);
    sigaddset(&stop_signals, SIGINT);
    sigaddset(&stop_signals, SIGTERM);
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_JOINABLE);
    pthread_sigmask(SIG_BLOCK, &stop_signals, &before);
    if (pthread_create(&thread_, &attr, do_msg_recv, this) != 0) {
        thread_ = {};
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    pthread_attr_destroy(&attr);
}

// The flag first: a thread that is not inside msgrcv() at this moment finds it, one that is wakes with EIDRM. Where the
// queue cannot be removed, an empty record of a type of its own wakes it, and is taken back if nobody took it. (Before
// a full queue the thread does not wait.)
void T_MSGQ_service::recv_thread_destroy() {
    announce_stop();
    remove_msgq();
    if (thread_ != pthread_t{}) {
        long empty_record = LONG_MAX;
        (void)msgsnd(id_, &empty_record, 0, IPC_NOWAIT);
        pthread_join(thread_, nullptr);
        (void)msgrcv(id_, &empty_record, 0, LONG_MAX, IPC_NOWAIT);
        thread_ = {};
    }
}

void* T_MSGQ_service::do_msg_recv(void* self) {
    auto* service = static_cast<T_MSGQ_service*>(self);
    std::vector<char> record(sizeof(long) + service->size_);
    while (!service->is_stopping()) {
        const ssize_t got = msgrcv(service->id_, record.data(), service->size_, 0, 0);
        const int error = errno;
        if (service->is_stopping()) {
            break; // a record that came in this moment is lost with the queue
        }
        if (got >= 0) {
            // A shorter record must not show the rest of the one before.
            const size_t end = sizeof(long) + static_cast<size_t>(got);
            memset(record.data() + end, 0, record.size() - end);
            try {
                service->callback_(record.data());
            } catch (const std::exception& why) { // out of memory: costs this record, not the daemon
                print_error("record of queue %d dropped: %s\n", service->key_, why.what());
            }
            continue;
        }
        if (error == EIDRM) {
            break;
        }
        // KEPT: the full-width colon (U+FF1A), and trying again at once.
        print_error("msgrcv Error：%s(%d), msgid:%d\n", strerror(error), error, service->id_);
    }
    return nullptr;
}

int T_MSGQ_service::send_msg(int key, const void* msg, unsigned long size) {
    const int id = msgget(key, 0);
    if (id == -1) {
        return errno == ENOENT ? kNoQueue : kLookupFailed;
    }
    return msgsnd(id, msg, size, IPC_NOWAIT) == 0 ? kSent : kNotSent;
}
