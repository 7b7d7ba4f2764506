// JsonObject beside bare jansson doing the same: texts are copied out in both.
#include <kel/json.h>

#include <benchmark/benchmark.h>
#include <jansson.h>

#include <cstdlib>
#include <string>
#include <vector>

namespace {

/// `members` members: numbers, short texts and texts of 60 bytes in turn.
std::string sample(int64_t members) {
  std::string text = "{";
  for (int64_t i = 0; i < members; ++i) {
    if (i > 0) text += ", ";
    text += "\"setting-" + std::to_string(i) + "\": ";
    text += i % 3 == 0   ? std::to_string(i * 1000)
            : i % 3 == 1 ? "\"short " + std::to_string(i) + "\""
                         : "\"" + std::string(60, 'x') + "\"";
  }
  return text + "}";
}

/// The keys whose number leaves `rest` when divided by 3.
std::vector<std::string> keys(int64_t members, int64_t rest) {
  std::vector<std::string> names;
  for (int64_t i = rest; i < members; i += 3) names.push_back("setting-" + std::to_string(i));
  return names;
}

/// Calls `get(object, key)` with one key after the other.
template <class Object, class Get>
void run(benchmark::State& state, int64_t rest, Object& object, Get get) {
  const auto names = keys(state.range(0), rest);
  size_t next = 0;
  for (auto _ : state) {
    auto value = get(object, names[next]);
    benchmark::DoNotOptimize(value);
    if (++next == names.size()) next = 0;
  }
}

template <class Get>
void run_kel(benchmark::State& state, int64_t rest, Get get) {
  JsonObject object;
  if (!object.LoadFromString(sample(state.range(0)).c_str())) std::abort();
  run(state, rest, object, get);
}

template <class Get>
void run_jansson(benchmark::State& state, int64_t rest, Get get) {
  json_t* object = json_loads(sample(state.range(0)).c_str(), 0, nullptr);
  if (object == nullptr) std::abort();
  run(state, rest, *object, get);
  json_decref(object);
}

void integer_kel(benchmark::State& state) {
  run_kel(state, 0, [](JsonObject& o, const std::string& key) { return o.GetInt64(key); });
}
void integer_jansson(benchmark::State& state) {
  run_jansson(state, 0, [](json_t& o, const std::string& key) {
    return json_integer_value(json_object_get(&o, key.c_str()));
  });
}

template <int64_t Rest>
void text_kel(benchmark::State& state) {
  run_kel(state, Rest, [](JsonObject& o, const std::string& key) { return o.GetString(key); });
}
template <int64_t Rest>
void text_jansson(benchmark::State& state) {
  run_jansson(state, Rest, [](json_t& o, const std::string& key) {
    const json_t* value = json_object_get(&o, key.c_str());
    return json_is_string(value) ? std::string(json_string_value(value)) : std::string();
  });
}

void load_kel(benchmark::State& state) {
  const std::string text = sample(state.range(0));
  for (auto _ : state) {
    JsonObject object(nullptr, true);
    if (!object.LoadFromString(text.c_str())) std::abort();
  }
}
void load_jansson(benchmark::State& state) {
  const std::string text = sample(state.range(0));
  for (auto _ : state) json_decref(json_loads(text.c_str(), 0, nullptr));
}

void dump_kel(benchmark::State& state) {
  JsonObject object;
  object.LoadFromString(sample(state.range(0)).c_str());
  for (auto _ : state) benchmark::DoNotOptimize(object.DumpToString(0));
}
void dump_jansson(benchmark::State& state) {
  json_t* object = json_loads(sample(state.range(0)).c_str(), 0, nullptr);
  for (auto _ : state) {
    char* text = json_dumps(object, 0);
    benchmark::DoNotOptimize(std::string(text));
    std::free(text);
  }
  json_decref(object);
}

#define PAIR(function, peer, name)                           \
  BENCHMARK(function)->Name(name "/30/kel")->Arg(30);        \
  BENCHMARK(peer)->Name(name "/30/jansson")->Arg(30);        \
  BENCHMARK(function)->Name(name "/30000/kel")->Arg(30'000); \
  BENCHMARK(peer)->Name(name "/30000/jansson")->Arg(30'000)

PAIR(integer_kel, integer_jansson, "json_integer");
PAIR(text_kel<1>, text_jansson<1>, "json_short_text");
PAIR(text_kel<2>, text_jansson<2>, "json_long_text");
PAIR(load_kel, load_jansson, "json_load");
PAIR(dump_kel, dump_jansson, "json_dump");

}  // namespace
