#include "json_helpers.h"

#include "log.h"

#include <json/reader.h>
#include <json/writer.h>

#include <cstdint>
#include <cstring>
#include <exception>
#include <memory>
#include <utility>

namespace {

// The member, or null if it is missing or `root` is not an object: the library throws when a number is asked for a key.
const Json::Value& member_of(const Json::Value& root, const char* key) {
    return root.isObject() ? root[key] : Json::Value::nullSingleton();
}

} // namespace

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

bool json_parse(const std::string& text, Json::Value* ret_root) {
    try {
        Json::Value root;
        Json::Reader reader;
        constexpr bool kCollectComments = true;
        if (!reader.parse(text, root, kCollectComments)) {
            return false;
        }
        *ret_root = std::move(root);
        return true;
    } catch (const std::exception&) { // nested too deeply, or no memory
        return false;
    }
}

std::string json_write_compact(const Json::Value& value) {
    return Json::FastWriter().write(value);
}

#pragma GCC diagnostic pop

bool json_parse_stream(const std::string& text, Json::Value* ret_root, std::string* ret_error) {
    std::string error;
    try {
        Json::Value root;
        const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
        if (reader->parse(text.data(), text.data() + text.size(), &root, &error)) {
            *ret_root = std::move(root);
            return true;
        }
    } catch (const std::exception& refusal) { // nested too deeply, or no memory
        error = refusal.what();
    }
    if (ret_error != nullptr) {
        *ret_error = std::move(error);
    }
    return false;
}

std::string json_write_stream(const Json::Value& value) {
    return Json::writeString(Json::StreamWriterBuilder(), value);
}

void get_json_type(const Json::Value& root, const char* key, std::string* ret_type) {
    const Json::Value& member = member_of(root, key);
    // The order matters: a whole number that fits 32 bits is "int", though it is a "long" and a "double" as well.
    if (member.isString()) {
        *ret_type = "string";
    } else if (member.isInt()) {
        *ret_type = "int";
    } else if (member.isIntegral()) {
        *ret_type = "long";
    } else if (member.isBool()) {
        *ret_type = "bool";
    } else if (member.isNumeric()) {
        *ret_type = "double";
    } else {
        *ret_type = "Others";
    }
}

namespace {

// The takers store the member and return true, or leave `out` alone and return false.

bool take_string(const Json::Value& member, void* out) {
    if (!member.isString()) {
        return false;
    }
    *static_cast<std::string*>(out) = member.asString();
    return true;
}

bool take_int(const Json::Value& member, void* out) {
    if (!member.isInt()) {
        return false;
    }
    *static_cast<std::int32_t*>(out) = member.asInt();
    return true;
}

bool take_long(const Json::Value& member, void* out) {
    if (!member.isInt64()) { // whole, but beyond the destination's range, is refused as well
        return false;
    }
    *static_cast<std::int64_t*>(out) = member.asInt64();
    return true;
}

bool take_bool(const Json::Value& member, void* out) {
    if (!member.isBool()) {
        return false;
    }
    *static_cast<std::int32_t*>(out) = member.asBool() ? 1 : 0;
    return true;
}

} // namespace

void parser_param_from_json_str(const Json::Value& root, const char* key, void* out, const char* type, bool* fail) {
    const Json::Value& member = member_of(root, key);
    bool taken = false;
    if (member.isNull()) {
        taken = false;
    } else if (std::strcmp(type, "string") == 0) {
        taken = take_string(member, out);
    } else if (std::strcmp(type, "int") == 0) {
        taken = take_int(member, out);
    } else if (std::strcmp(type, "long") == 0) {
        taken = take_long(member, out);
    } else if (std::strcmp(type, "bool") == 0) {
        taken = take_bool(member, out);
        if (!taken) {
            // KEPT: of the four types only this one says in the log why it failed.
            std::string type_name;
            get_json_type(root, key, &type_name);
            dbg_printf2("[%s][%d] %s Type fail, this input value type is %s.", __func__, __LINE__, key,
                        type_name.c_str());
        }
    }
    if (!taken) {
        *fail = true;
    }
}
