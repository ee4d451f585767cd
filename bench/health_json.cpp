// The health summary made a text and read back: the library and two well-known JSON libraries.
#include <benchmark/benchmark.h>
#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <nlohmann/json.hpp>

#include "DiskUtils/HealthStatus.h"

namespace {

constexpr char const* kCid = "035344534c33324780a1b2c3d4012100";
constexpr double kSize = 29.72412109375;
constexpr double kWritten = 1234.5678901672363;
constexpr char const* kFirmware = "30.4|B140 (Sep 28 2018 15:10:02)";

void Library(benchmark::State& state) {
  Quellon::HealthStatus health;
  health.status["zf"] = 0;
  health.status["zi"] = kCid;
  health.status["zr"] = 0;
  health.status["zs"] = kSize;
  health.status["zl"] = kWritten;
  health.status["f"] = kFirmware;
  for (auto _ : state) {
    auto const summary = Tarvik::Json::Deserialize(health.ToText());
    benchmark::DoNotOptimize(summary.IsObject());
  }
}

void Nlohmann(benchmark::State& state) {
  nlohmann::json const health{{"zf", 0},     {"zi", kCid},     {"zr", 0},
                              {"zs", kSize}, {"zl", kWritten}, {"f", kFirmware}};
  for (auto _ : state) {
    auto const summary = nlohmann::json::parse(health.dump());
    benchmark::DoNotOptimize(summary.is_object());
  }
}

void RapidJson(benchmark::State& state) {
  rapidjson::Document health(rapidjson::kObjectType);
  auto& memory = health.GetAllocator();
  health.AddMember("f", rapidjson::StringRef(kFirmware), memory);
  health.AddMember("zf", 0, memory);
  health.AddMember("zi", rapidjson::StringRef(kCid), memory);
  health.AddMember("zl", kWritten, memory);
  health.AddMember("zr", 0, memory);
  health.AddMember("zs", kSize, memory);
  for (auto _ : state) {
    rapidjson::StringBuffer text;
    rapidjson::Writer writer(text);
    health.Accept(writer);
    rapidjson::Document summary;
    summary.Parse(text.GetString(), text.GetSize());
    benchmark::DoNotOptimize(summary.IsObject());
  }
}

BENCHMARK(Library);
BENCHMARK(Nlohmann);
BENCHMARK(RapidJson);

}  // namespace

BENCHMARK_MAIN();
