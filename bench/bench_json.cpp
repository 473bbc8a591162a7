// Taking a request apart and writing a reply, beside the bare library.
#include "bench_main.h"
#include "json_helpers.h"

#include <json/json.h>

#include <cstdint>
#include <string>

// The helpers use the library's old reader and writer, whose output clients know; so must the baseline.
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

namespace {

const std::string kRequest =
    R"({"provide_id":"surveillance","command":"register","user":"admin","level":3,"created":1447587408123,)"
    R"("enabled":true,"path":"/share/CACHEDEV1_DATA/recordings"})";

void bare_take(benchmark::State& state) {
    for (auto _ : state) {
        Json::Value root;
        Json::Reader reader;
        if (!reader.parse(kRequest, root)) {
            state.SkipWithError("the request was not understood");
            break;
        }
        std::string provide_id = root["provide_id"].asString();
        std::string command = root["command"].asString();
        int32_t level = root["level"].asInt();
        int64_t created = root["created"].asInt64();
        benchmark::DoNotOptimize(provide_id);
        benchmark::DoNotOptimize(command);
        benchmark::DoNotOptimize(level);
        benchmark::DoNotOptimize(created);
    }
}

void take(benchmark::State& state) {
    for (auto _ : state) {
        Json::Value root;
        bool fail = !json_parse(kRequest, &root);
        std::string provide_id;
        std::string command;
        int32_t level = 0;
        int64_t created = 0;
        parser_param_from_json_str(root, "provide_id", &provide_id, "string", &fail);
        parser_param_from_json_str(root, "command", &command, "string", &fail);
        parser_param_from_json_str(root, "level", &level, "int", &fail);
        parser_param_from_json_str(root, "created", &created, "long", &fail);
        if (fail) {
            state.SkipWithError("the request was not understood");
            break;
        }
        benchmark::DoNotOptimize(provide_id);
        benchmark::DoNotOptimize(command);
        benchmark::DoNotOptimize(level);
        benchmark::DoNotOptimize(created);
    }
}

Json::Value make_reply() {
    Json::Value reply;
    reply["error_code"] = 0;
    reply["error_msg"] = "";
    reply["result"] = 0;
    reply["hwsn"] = "Q123456789";
    return reply;
}

void bare_write(benchmark::State& state) {
    const Json::Value reply = make_reply();
    for (auto _ : state) {
        Json::FastWriter writer;
        std::string text = writer.write(reply);
        benchmark::DoNotOptimize(text);
    }
}

void write(benchmark::State& state) {
    const Json::Value reply = make_reply();
    for (auto _ : state) {
        std::string text = json_write_compact(reply);
        benchmark::DoNotOptimize(text);
    }
}

} // namespace

int main(int argc, char** argv) {
    add_pair("json request", bare_take, take);
    add_pair("json reply", bare_write, write);
    return run_benchmarks(argc, argv);
}
