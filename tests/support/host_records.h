// The two queues' records as host programs lay them out, built byte by byte from offsets and not from the daemon's
// code.
//
//     host_record record = host_record::event("alice", "login");
//     record.number32(12, 3);
//     ASSERT_TRUE(post(65522, record));
#ifndef VEXPROD_TESTS_HOST_RECORDS_H
#define VEXPROD_TESTS_HOST_RECORDS_H

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string_view>
#include <sys/msg.h>
#include <thread>
#include <vector>

class host_record {
public:
    /// All zero but for the type.
    host_record(std::int64_t type, std::size_t body_size) : bytes_(8 + body_size) { number64(0, type); }

    host_record& number32(std::size_t offset, std::int32_t value) { return put(offset, &value, sizeof(value)); }
    host_record& number64(std::size_t offset, std::int64_t value) { return put(offset, &value, sizeof(value)); }
    /// Without a NUL; the record is zero where nothing was put.
    host_record& text(std::size_t offset, std::string_view value) { return put(offset, value.data(), value.size()); }

    static host_record event(std::int64_t second, std::string_view user, std::string_view content) {
        return host_record(1, 2488).number64(16, second).text(24, user).text(219, content);
    }
    static host_record connection(std::int64_t second, std::string_view user, std::string_view content) {
        return host_record(2, 2488).number64(1256, second).text(1264, user).text(1459, content);
    }
    static host_record notification(std::int32_t type, std::int32_t action, std::int32_t flag, std::string_view extra) {
        return host_record(1, 144).number32(8, type).number32(12, action).number32(16, flag).text(20, extra);
    }

    [[nodiscard]] void* data() { return bytes_.data(); }
    [[nodiscard]] const void* data() const { return bytes_.data(); }
    [[nodiscard]] std::size_t body_size() const { return bytes_.size() - 8; }

private:
    host_record& put(std::size_t offset, const void* data, std::size_t size) {
        if (size > bytes_.size() || offset > bytes_.size() - size) {
            throw std::out_of_range("no such place in the record");
        }
        std::memcpy(bytes_.data() + offset, data, size);
        return *this;
    }
    std::vector<char> bytes_;
};

/// Posts as a host program does that may not block: again and again while the queue is full.
/// @return False for any other failure.
inline bool post(int key, const host_record& record) {
    const int id = msgget(key, 0);
    while (msgsnd(id, record.data(), record.body_size(), IPC_NOWAIT) != 0) {
        if (errno != EAGAIN && errno != EINTR) {
            return false;
        }
        std::this_thread::yield();
    }
    return true;
}

/// Whether a queue with that key exists.
inline bool queue_exists(int key) {
    return msgget(key, 0) != -1;
}

/// Records waiting in the queue, or -1 without one.
inline long queue_length(int key) {
    msqid_ds status = {};
    const int id = msgget(key, 0);
    return id != -1 && msgctl(id, IPC_STAT, &status) == 0 ? static_cast<long>(status.msg_qnum) : -1;
}

#endif
