// post_event KIND [OPTION VALUE]... - posts a record to one of the daemon's message queues, as the host's programs do.
//
//     post_event log --user alice --content "door opened" --level 2
//     post_event conn --user bob --source-ip 192.0.2.7 --serv 3 --action 1
//     post_event notify --type 7 --action 8 --flag 1 --extra "volume 1"
//
// Every kind takes --count N (posts N records) and --wait (waits for room in a full queue instead of failing). What is
// not given is 0 or empty; --time is the present. The host's programs share no header with the daemon, and neither does
// this one: the records are written here from their offsets.
//
// Exit status: 0 posted, 1 not posted (no queue, full queue), 2 bad arguments.

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <string_view>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <vector>

namespace {

constexpr int kNotPosted = 1;
constexpr int kBadArguments = 2;

enum class form { number32, number64, text };

// One field of a record. Offsets count from the record's first byte, which belongs to the type word.
struct field {
    std::string_view option;
    form as;
    size_t offset;
    size_t size; // With the NUL that ends a text.
};

struct kind {
    std::string_view name;
    int queue;
    int64_t type; // The type word, 8 bytes at offset 0.
    size_t size;  // Of the whole record.
    std::vector<field> fields;
};

const std::array<kind, 3>& kinds() {
    static const std::array<kind, 3> all = {{
        {"log",
         65522,
         1,
         2496,
         {{"--level", form::number32, 12, 4},
          {"--time", form::number64, 16, 8},
          {"--user", form::text, 24, 65},
          {"--source-ip", form::text, 89, 65},
          {"--source-name", form::text, 154, 65},
          {"--content", form::text, 219, 1024}}},
        {"conn",
         65522,
         2,
         2496,
         {{"--level", form::number32, 1252, 4},
          {"--time", form::number64, 1256, 8},
          {"--user", form::text, 1264, 65},
          {"--source-ip", form::text, 1329, 65},
          {"--source-name", form::text, 1394, 65},
          {"--content", form::text, 1459, 1024},
          {"--serv", form::number32, 2484, 4},
          {"--action", form::number32, 2488, 4}}},
        {"notify",
         65521,
         1,
         152,
         {{"--type", form::number32, 8, 4},
          {"--action", form::number32, 12, 4},
          {"--flag", form::number32, 16, 4},
          {"--extra", form::text, 20, 132}}},
    }};
    return all;
}

template <class Number>
bool parse(std::string_view text, Number* ret_number) {
    const char* end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, *ret_number);
    return error == std::errc() && rest == end;
}

template <class Number>
bool put_number(std::vector<char>* record, const field& to, std::string_view text) {
    Number number = 0;
    if (!parse(text, &number)) {
        (void)fprintf(stderr, "post_event: %s: not a number of %zu bytes: %.*s\n", to.option.data(), to.size,
                      static_cast<int>(text.size()), text.data());
        return false;
    }
    memcpy(record->data() + to.offset, &number, sizeof(number));
    return true;
}

bool put(std::vector<char>* record, const field& to, std::string_view text) {
    switch (to.as) {
    case form::number32:
        return put_number<int32_t>(record, to, text);
    case form::number64:
        return put_number<int64_t>(record, to, text);
    default:
        if (text.size() >= to.size) {
            (void)fprintf(stderr, "post_event: %s: longer than %zu bytes\n", to.option.data(), to.size - 1);
            return false;
        }
        memcpy(record->data() + to.offset, text.data(), text.size());
        return true;
    }
}

void print_usage(FILE* to) {
    (void)fputs("usage: post_event log|conn|notify [--count N] [--wait] [OPTION VALUE]...\n", to);
    for (const kind& each : kinds()) {
        (void)fprintf(to, "  %s:", each.name.data());
        for (const field& option : each.fields) {
            (void)fprintf(to, " %s", option.option.data());
        }
        (void)fputc('\n', to);
    }
}

struct order {
    std::vector<char> record;
    unsigned count = 1;
    bool waits = false;
};

// False = an option is wrong, which has been reported.
bool read_options(const kind& chosen, int argc, char** argv, order* ret) {
    for (int i = 2; i < argc; ++i) {
        const std::string_view option = argv[i];
        if (option == "--wait") {
            ret->waits = true;
            continue;
        }
        const auto to = std::find_if(chosen.fields.begin(), chosen.fields.end(),
                                     [&](const field& each) { return each.option == option; });
        if (option != "--count" && to == chosen.fields.end()) {
            (void)fprintf(stderr, "post_event: %s has no option %s; post_event --help lists them\n", chosen.name.data(),
                          argv[i]);
            return false;
        }
        if (i + 1 == argc) {
            (void)fprintf(stderr, "post_event: %s takes a value\n", argv[i]);
            return false;
        }
        const std::string_view value = argv[++i];
        if (option != "--count") {
            if (!put(&ret->record, *to, value)) {
                return false;
            }
        } else if (!parse(value, &ret->count)) {
            (void)fprintf(stderr, "post_event: --count: not a number of records: %s\n", argv[i]);
            return false;
        }
    }
    return true;
}

int post(const kind& chosen, const order& what) {
    const int queue = msgget(chosen.queue, 0);
    if (queue == -1) {
        (void)fprintf(stderr, "post_event: no queue %d: %s\n", chosen.queue, strerror(errno));
        return kNotPosted;
    }
    for (unsigned posted = 0; posted < what.count;) {
        if (msgsnd(queue, what.record.data(), what.record.size() - sizeof(int64_t), what.waits ? 0 : IPC_NOWAIT) == 0) {
            ++posted;
        } else if (errno != EINTR) {
            (void)fprintf(stderr, "post_event: posted %u of %u: %s\n", posted, what.count, strerror(errno));
            return kNotPosted;
        }
    }
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    const std::string_view name = argc > 1 ? argv[1] : "";
    if (name == "-h" || name == "--help") {
        print_usage(stdout);
        return 0;
    }
    for (const kind& chosen : kinds()) {
        if (chosen.name != name) {
            continue;
        }
        order what;
        what.record.resize(chosen.size);
        memcpy(what.record.data(), &chosen.type, sizeof(chosen.type));
        const std::string now = std::to_string(time(nullptr));
        for (const field& each : chosen.fields) {
            if (each.option == "--time") {
                (void)put(&what.record, each, now);
            }
        }
        return read_options(chosen, argc, argv, &what) ? post(chosen, what) : kBadArguments;
    }
    if (argc > 1) {
        (void)fprintf(stderr, "post_event: unknown kind: %s\n", argv[1]);
    }
    print_usage(stderr);
    return kBadArguments;
}
