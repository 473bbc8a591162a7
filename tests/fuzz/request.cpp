// A caller's memory file as a request: its text, both JSON readers, and every way to take a key.
#include "fuzz.h"
#include "json_helpers.h"
#include "log.h"
#include "scoped.h"

#include <array>

namespace {

constexpr const char* kKey = "key";

// What parser_param_from_json_str() takes of one type, with all that says it did.
void check_taking(const Json::Value& root, const char* type, const std::string& name) {
    std::string text = "as it was";
    std::int64_t number = 42; // has room for the smaller ones
    const bool is_text = std::string_view(type) == "string";
    bool failed = false;
    parser_param_from_json_str(root, kKey, is_text ? static_cast<void*>(&text) : static_cast<void*>(&number), type,
                               &failed);
    require(!failed || (text == "as it was" && number == 42), "nothing is touched on failure");
    require(failed || name == type || (name == "int" && std::string_view(type) == "long"), "taken as what it is");
}

void check_document(const Json::Value& root) {
    std::string name;
    get_json_type(root, kKey, &name);
    for (const char* type : {"string", "int", "long", "bool", "other"}) {
        check_taking(root, type, name);
    }
    Json::Value again;
    require(json_write_compact(root).ends_with('\n'), "one line");
    (void)json_write_stream(root);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    [[maybe_unused]] static const bool prepared = (log_set_dir("/tmp/fuzz-log"), true);
    const unique_io io(ks_io_create());
    (void)ks_io_write(io.get(), data, size);
    ks_io_sync(io.get());
    const std::string_view input = text_of(data, size);
    const std::string text = request_text(io.get());
    require(text == input.substr(0, input.find('\0')), "the text up to its first NUL");
    Json::Value root;
    if (json_parse(text, &root)) {
        check_document(root);
    }
    Json::Value stream_root;
    std::string error;
    if (json_parse_stream(text, &stream_root, &error)) {
        check_document(stream_root);
    } else {
        require(!error.empty(), "a refusal has a reason");
    }
    return 0;
}
