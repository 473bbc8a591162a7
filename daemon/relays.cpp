#include "relays.h"

#include "error_output.h"
#include "json_helpers.h"
#include "kservice.h"
#include "local_time.h"
#include "log.h"
#include "scoped.h"

#include <json/value.h>

#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <sys/time.h>

namespace {

constexpr const char* kNotifyService = "VexHubServer_notify-vexprod";
constexpr unsigned kCallTimeoutS = 5;
constexpr long kEventLog = 1;
constexpr long kConnectionLog = 2;
constexpr const char* kUnknownHere = "---"; // the receiving service fills it in

// A record as the host's programs lay it out: little-endian, unaligned, texts ended by a NUL. One without it runs on
// into what follows, but never past the record.
class record_view {
public:
    record_view(const void* data, size_t size) : data_(static_cast<const char*>(data)), size_(size) {}

    template <class T>
    [[nodiscard]] T number(size_t offset) const {
        T value{};
        memcpy(&value, data_ + offset, sizeof(value));
        return value;
    }
    [[nodiscard]] std::string text(size_t offset) const {
        return {data_ + offset, strnlen(data_ + offset, size_ - offset)};
    }

private:
    const char* data_;
    size_t size_;
};

// Where the two kinds of event-log record keep the same fields.
struct event_layout {
    size_t level, time, user, source_ip, source_name, content;
};
constexpr event_layout kEventLayout = {12, 16, 24, 89, 154, 219};
constexpr event_layout kConnectionLayout = {1252, 1256, 1264, 1329, 1394, 1459};
constexpr size_t kServOffset = 2484;
constexpr size_t kActionOffset = 2488;

constexpr size_t kBusTypeOffset = 8;
constexpr size_t kBusActionOffset = 12;
constexpr size_t kReturnFlagOffset = 16;
constexpr size_t kExtraInfoOffset = 20;

Json::Value event_json(const record_view& record, const event_layout& at) {
    const auto second = record.number<std::int64_t>(at.time);
    char stamp[40];
    (void)snprintf(stamp, sizeof(stamp), "%ld%03u", static_cast<long>(second), get_datetime_count(second));
    Json::Value json(Json::objectValue);
    json["level"] = record.number<std::int32_t>(at.level);
    json["time"] = stamp;
    json["user"] = record.text(at.user);
    json["source_ip"] = record.text(at.source_ip);
    json["source_name"] = record.text(at.source_name);
    json["nas_ip"] = kUnknownHere;
    json["nas_name"] = kUnknownHere;
    json["content"] = record.text(at.content);
    return json;
}

unsigned call_notify_service(const char* command, const std::string& text, ks_io* io) {
    ks_json_write_io(text.data(), text.size(), io);
    return ks_call(kNotifyService, command, io, kCallTimeoutS, -1);
}

// The local time now, in the process's one buffer for it.
const char* bus_time() {
    static char text[32];
    const tm local = local_time(time(nullptr));
    timeval fine = {};
    gettimeofday(&fine, nullptr);
    const size_t length = strftime(text, sizeof(text), "%y/%m/%d %H:%M:%S", &local);
    (void)snprintf(text + length, sizeof(text) - length, ":%06d", static_cast<int>(fine.tv_usec));
    return text;
}

} // namespace

unsigned get_datetime_count(std::int64_t second) {
    static std::int64_t last_second = 0;
    static unsigned count = 0;
    if (second != last_second) {
        last_second = second;
        count = 0;
    } else {
        count = (count + 1) % 1000;
    }
    return count;
}

void eventlog_handler(void* record) {
    const unique_io io(ks_io_create());
    const record_view view(record, sizeof(long) + kEventLogBodySize);
    Json::Value json;
    const char* command = nullptr;
    switch (view.number<long>(0)) {
    case kEventLog:
        command = "notify_log";
        json = event_json(view, kEventLayout);
        json["method"] = "notify";
        break;
    case kConnectionLog:
        command = "notify_conn";
        json = event_json(view, kConnectionLayout);
        json["serv"] = view.number<std::int32_t>(kServOffset);
        json["action"] = view.number<std::int32_t>(kActionOffset);
        break;
    default:
        return; // none of ours
    }
    if (call_notify_service(command, json_write_compact(json), io.get()) != 0) {
        dbg_printf2("[%s][%d] eventlog_handler fail", __func__, __LINE__);
    }
}

void notify_handler(void* record) {
    const unique_io io(ks_io_create());
    const record_view view(record, sizeof(long) + kNotifyBodySize);
    Json::Value json(Json::objectValue);
    json["method"] = "notify";
    json["evbus_time"] = bus_time();
    json["evbus_type"] = view.number<std::int32_t>(kBusTypeOffset);
    json["evbus_action"] = view.number<std::int32_t>(kBusActionOffset);
    json["ret_flag"] = view.number<std::int32_t>(kReturnFlagOffset) == 1;
    json["evbus_extra_info"] = view.text(kExtraInfoOffset);
    const std::string text = json_write_compact(json);
    // KEPT: a trace of no use, the low half of an address; nothing reads it.
    print_error("str_publish_buf=[%d]  \n", static_cast<int>(reinterpret_cast<std::uintptr_t>(text.c_str())));
    if (call_notify_service("notify_event", text, io.get()) != 0) {
        dbg_printf2("[%s][%d] eventlog_handler fail", __func__, __LINE__); // KEPT: the text names the other relay
    }
}
