// The daemon's life, in main()'s thread: a fixed start-up order, an idle loop, a fixed shutdown order.
//
// Stopping. The handler of SIGINT and SIGTERM only sets g_IsTerminate and wakes the idle loop; all work is done here.
// The handler takes sleep_mtx, so it must never run on a thread that holds it: the main thread blocks both signals
// around every use of the mutex, the wait included, and the handler blocks them for itself, since one signal may
// interrupt the handler of the other. The flag is tested under the mutex, so a wake-up between the test and the wait is
// not lost. While the main thread waits, the services' producer threads take the signals; workers and listeners block
// them, so that a stop never interrupts a system call of a request. Should no such thread exist, the main thread takes
// them between two waits.
//
// Services. Each runs in a detached thread whose ks_start() returns when it is stopped. ks_stop() has nothing to stop
// before ks_start() has begun, and ks_free() may not come before it has: the shutdown therefore waits until a worker of
// the service has reported (worker_is_up), however early a stop was asked for.
//
// Crashing. One thread ends the process, the first to claim that (claim_end): one that crashed, by SIGKILL once its
// report is written, or the main thread, after the shutdown. The second gives way, so that a stop never cuts a report
// short, or removes what a crash leaves behind.
//
// The mail service is left to process exit, so its workers may be busy while static objects are destroyed: nothing that
// a request uses may have a static object with a destructor (tests/daemon/static_objects.sh looks for them).
#include "lifecycle.h"

#include "command_table.h"
#include "descriptor_limit.h"
#include "dispatch.h"
#include "environment.h"
#include "host_config.h"
#include "host_paths.h"
#include "instance.h"
#include "kservice.h"
#include "log.h"
#include "options.h"
#include "queue_listener.h"
#include "relays.h"

#include <csignal>
#include <cstdio>
#include <ctime>
#include <execinfo.h>
#include <fcntl.h>
#include <malloc.h>
#include <memory>
#include <pthread.h>
#include <string>
#include <unistd.h>

namespace {

constexpr const char* kMain = "main"; // the name that start-up's messages carry
constexpr size_t kMainWorkers = 2;
constexpr int kMailWorkers = 5;
constexpr int kIdleSeconds = 10;
constexpr int kLargestKeptBlock = 1024 * 1024;
constexpr unsigned kCrashSeconds = 10;
constexpr int kExitRefused = -1;
constexpr int kExitNoService = -2;

int g_IsDaemonize;     // option -d
int g_IsTerminate = 0; // written by a signal handler, read by the loop: through set_terminate() and is_terminate() only
ks_handle* ks_service_handle = nullptr;
ks_handle* ks_send_mail_service_handle = nullptr;
std::unique_ptr<T_MSGQ_service> msgq_obj;
std::unique_ptr<T_MSGQ_service> log_msgq_obj;
pthread_mutex_t sleep_mtx = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t sleep_cond = PTHREAD_COND_INITIALIZER;
pid_t ending_thread = 0; // who ends the process: atomically

// What the main thread knows of a service's thread. Guarded by start_mtx.
struct service_thread {
    bool made = false;
    bool up = false; // a worker runs, so ks_start() has begun
};
service_thread main_thread;
service_thread mail_thread;
pthread_mutex_t start_mtx = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t start_cond = PTHREAD_COND_INITIALIZER;

void set_terminate() {
    __atomic_store_n(&g_IsTerminate, 1, __ATOMIC_SEQ_CST);
}
bool is_terminate() {
    return __atomic_load_n(&g_IsTerminate, __ATOMIC_SEQ_CST) != 0;
}

sigset_t stop_signals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    return set;
}

void stop_service(int /*signum*/) {
    set_terminate();
    const sigset_t both = stop_signals();
    sigset_t before;
    pthread_sigmask(SIG_BLOCK, &both, &before);
    pthread_mutex_lock(&sleep_mtx);
    pthread_cond_signal(&sleep_cond);
    pthread_mutex_unlock(&sleep_mtx);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

// Claims the end of the process for this thread. @return 0, or the thread that has claimed it before.
pid_t claim_end() {
    pid_t claimed_by = 0;
    (void)__atomic_compare_exchange_n(&ending_thread, &claimed_by, gettid(), false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
    return claimed_by;
}

// The dump allocates. After a crash inside malloc() it may wait for ever, and then the alarm ends the process; or it
// may crash too, which calls this handler again: then there is nothing more to report, as when the main thread crashes
// at the end of an orderly stop. Any other thread that crashes lets the first one finish, for no longer than a dump may
// take: at its end the main thread may need a lock that a crashed thread holds.
void dump_backtrace_service(int /*signum*/) {
    const pid_t claimed_by = claim_end();
    if (claimed_by != 0) {
        for (unsigned left = claimed_by == gettid() ? 0 : kCrashSeconds; left > 0;) {
            left = sleep(left);
        }
        (void)raise(SIGKILL);
    }
    (void)signal(SIGALRM, [](int) { (void)raise(SIGKILL); });
    sigset_t ends;
    sigemptyset(&ends);
    for (const int each : {SIGALRM, SIGSEGV, SIGABRT}) {
        sigaddset(&ends, each);
    }
    pthread_sigmask(SIG_UNBLOCK, &ends, nullptr);
    (void)alarm(kCrashSeconds);
    vexprod_debug_backtrace_dump();
    (void)raise(SIGKILL);
}

// @param dumping  A thread that writes a crash report, which an end in order must not cut off, or 0.
void give_way_to(pid_t dumping) {
    if (dumping != 0) {
        for (;;) {
            (void)pause(); // the dump ends in SIGKILL
        }
    }
}

// Before each step that takes something away: what a crash leaves behind stays.
void let_a_report_be_written() {
    give_way_to(__atomic_load_n(&ending_thread, __ATOMIC_SEQ_CST));
}

void install_signal_handlers() {
    void* frame = nullptr;
    (void)backtrace(&frame, 1); // the first call loads the unwinder, which a crash handler had better find loaded
    ks_signal(SIGINT, stop_service);
    ks_signal(SIGTERM, stop_service);
    ks_signal(SIGSEGV, dump_backtrace_service);
    ks_signal(SIGABRT, dump_backtrace_service);
    const sigset_t both = stop_signals();
    pthread_sigmask(SIG_UNBLOCK, &both, nullptr); // whatever mask we were started with
}

// Runs first in each consumer worker, whose mask the request threads inherit.
void worker_is_up(void* argument) {
    const sigset_t both = stop_signals();
    pthread_sigmask(SIG_BLOCK, &both, nullptr);
    pthread_mutex_lock(&start_mtx);
    static_cast<service_thread*>(argument)->up = true;
    pthread_cond_broadcast(&start_cond);
    pthread_mutex_unlock(&start_mtx);
}

void wait_until_up(const service_thread& thread) {
    pthread_mutex_lock(&start_mtx);
    while (thread.made && !thread.up) {
        pthread_cond_wait(&start_cond, &start_mtx);
    }
    pthread_mutex_unlock(&start_mtx);
}

void* pthread_ks_start(void* /*argument*/) {
    dbg_printf2("[%s][%d] ks_start.", __func__, __LINE__);
    ks_start(ks_service_handle);
    return nullptr;
}

void* pthread_ks_send_mail_start(void* /*argument*/) {
    dbg_printf2("[%s][%d] ks_send_mail_start.", __func__, __LINE__);
    ks_start(ks_send_mail_service_handle);
    return nullptr;
}

void start_detached(void* (*routine)(void*), service_thread* state) {
    pthread_t thread = {};
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    state->made = pthread_create(&thread, &attr, routine, nullptr) == 0;
    pthread_attr_destroy(&attr);
}

// The null device takes the numbers that the starter has left closed: a file that is opened, or a descriptor that a
// caller passes, would be a standard stream of the daemon and of a child, if only for a moment. Inherited by these.
void fill_standard_streams() {
    int fd{};
    do {
        fd = open("/dev/null", O_RDWR);
    } while (fd >= 0 && fd <= STDERR_FILENO);
    if (fd >= 0) {
        close(fd);
    }
}

// @return 0 or the exit status.
int create_services() {
    ks_service_handle = ks_create(kMainService, KS_PTHREAD_MODE, kMainWorkers, service_handler);
    if (ks_service_handle == nullptr) {
        dbg_printf2("[%s][%d] ks_service_handle is NULL.", kMain, __LINE__);
        return kExitNoService;
    }
    dbg_printf2("[%s][%d] sock_name:%s.", kMain, __LINE__, ks_service_handle->sockfile);
    ks_worker_init(ks_service_handle, worker_is_up, &main_thread);

    ks_send_mail_service_handle = ks_create(kMailService, KS_PTHREAD_MODE, kMailWorkers, sendmail_service_handler);
    if (ks_send_mail_service_handle == nullptr) {
        dbg_printf2("[%s][%d] ks_send_mail_service_handle is NULL.", kMain, __LINE__);
        return kExitNoService;
    }
    dbg_printf2("[%s][%d] send_mail_sock_name:%s, KS_SEND_MAIL_SERVER_THREAD_NUM:%d.", kMain, __LINE__,
                ks_send_mail_service_handle->sockfile, kMailWorkers);
    ks_worker_init(ks_send_mail_service_handle, worker_is_up, &mail_thread);
    return 0;
}

void start_relays() {
    msgq_obj = std::make_unique<T_MSGQ_service>(kNotifyQueueKey, notify_handler, kNotifyBodySize);
    msgq_obj->server_start();
    log_msgq_obj = std::make_unique<T_MSGQ_service>(kEventLogQueueKey, eventlog_handler, kEventLogBodySize);
    log_msgq_obj->server_start();
}

// Until a stop is asked for. The deadline bounds the delay should a wake-up be lost after all.
void idle() {
    const sigset_t both = stop_signals();
    while (!is_terminate()) {
        timespec deadline = {};
        clock_gettime(CLOCK_REALTIME, &deadline);
        deadline.tv_sec += kIdleSeconds;
        sigset_t before;
        pthread_sigmask(SIG_BLOCK, &both, &before);
        pthread_mutex_lock(&sleep_mtx);
        if (!is_terminate()) {
            pthread_cond_timedwait(&sleep_cond, &sleep_mtx, &deadline);
        }
        pthread_mutex_unlock(&sleep_mtx);
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
    }
}

void stop_and_destroy(std::unique_ptr<T_MSGQ_service>* relay) {
    if (*relay) {
        let_a_report_be_written();
        (*relay)->server_stop();
        relay->reset();
    }
}

// The relays go after the main service and before its handle is freed. The mail service is neither stopped nor freed:
// process exit ends it.
void free_all_obj() {
    wait_until_up(main_thread);
    wait_until_up(mail_thread);
    let_a_report_be_written();
    ks_stop(ks_service_handle);
    dbg_printf2("[%s][%d] is_terminate", __func__, __LINE__);
    // Both may be waiting for the notification service: together, not one after the other.
    for (const auto* relay : {&msgq_obj, &log_msgq_obj}) {
        if (*relay) {
            (*relay)->announce_stop();
        }
    }
    stop_and_destroy(&msgq_obj);
    stop_and_destroy(&log_msgq_obj);
    ks_free(ks_service_handle);
    ks_service_handle = nullptr;
}

} // namespace

int run_daemon(int argc, char** argv) {
    fill_standard_streams();
    // A starter that ignored SIGCHLD handed that down, and then no child could be waited for.
    (void)signal(SIGCHLD, SIG_DFL);
    // The services ignore both as well, but the relays run before them, and may write to a pipe that nobody reads or to
    // a file that has reached its limit.
    (void)signal(SIGPIPE, SIG_IGN);
    (void)signal(SIGXFSZ, SIG_IGN);
    raise_descriptor_limit(); // every waiting caller holds one; without it the daemon just serves fewer
    // A worker copies a request of up to 16 MiB. Unless fixed, the size from which free() returns a block to the
    // system rises with the first such block, and each worker then keeps one for ever.
    (void)mallopt(M_MMAP_THRESHOLD, kLargestKeptBlock);
    (void)environment_unset("LD_LIBRARY_PATH");

    std::string install_path;
    if (!ks_get_ini_info(kPackageRegistry, kPackage, kInstallPathField, install_path)) {
        (void)std::fprintf(stderr, "[%s][%d] get Install_Path fail.", kMain, __LINE__);
        return kExitRefused;
    }
    char log_directory[256];
    (void)std::snprintf(log_directory, sizeof(log_directory), "%s/%s", install_path.c_str(), kLogFolder);
    log_set_dir(log_directory);
    dbg_printf2("[%s][%d] lyn-ks-vexprod start, Server:%s.", kMain, __LINE__, kMainService);

    if (ks_reentried(argv[0])) {
        dbg_printf2("[%s][%d] warning: re-entry.", kMain, __LINE__);
        return kExitRefused;
    }
    install_signal_handlers();

    const options chosen = read_options(argc, argv);
    if (chosen.terminate) {
        set_terminate();
    }
    g_IsDaemonize = chosen.daemonize ? 1 : 0;
    if (g_IsDaemonize != 0) {
        (void)!daemon(0, 0); // in the foreground, if it cannot be helped
    }

    const int status = create_services();
    if (status != 0) {
        return status;
    }
    start_relays();
    start_detached(pthread_ks_start, &main_thread);
    start_detached(pthread_ks_send_mail_start, &mail_thread);
    idle();
    free_all_obj();
    give_way_to(claim_end());
    return 0;
}
