// The access check beside the plain way to write it.
#include <kel/iprange.h>

#include <arpa/inet.h>
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <random>
#include <string>

namespace {

/// Networks of all lengths from 8 to 32, none of which holds kCaller.
std::string ranges(int64_t count) {
  std::mt19937 random(1);
  std::string text;
  for (int64_t i = 0; i < count; ++i) {
    const unsigned length = 8 + random() % 25;
    const in_addr address = {htonl((random() | 0x80000000U) & ~0U << (32 - length))};
    char dotted[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, &address, dotted, sizeof dotted);
    text += (i == 0 ? "" : ", ") + (dotted + ('/' + std::to_string(length)));
  }
  return text;
}

constexpr const char* kCaller = "10.20.30.40";

/// A copy of the text, a token an element, and an address and a mask for each.
bool check_plainly(const char* range_text, const char* ip) {
  in_addr caller;
  if (inet_pton(AF_INET, ip, &caller) != 1) return false;
  char* copy = strdup(range_text);
  char* state = nullptr;
  bool inside = false;
  for (char* element = strtok_r(copy, ", ", &state); element != nullptr && !inside;
       element = strtok_r(nullptr, ", ", &state)) {
    char* slash = std::strchr(element, '/');
    const int length = slash == nullptr ? 32 : std::atoi(slash + 1);
    if (slash != nullptr) *slash = '\0';
    in_addr network;
    if (inet_pton(AF_INET, element, &network) != 1 || length < 0 || length > 32) break;
    const uint32_t mask = length == 0 ? 0 : ~0U << (32 - length);
    inside = (ntohl(caller.s_addr) & mask) == ntohl(network.s_addr);
  }
  std::free(copy);
  return inside;
}

template <class Check>
void check(benchmark::State& state, Check answer) {
  const std::string text = ranges(state.range(0));
  for (auto _ : state) benchmark::DoNotOptimize(answer(text.c_str(), kCaller));
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

void check_kel(benchmark::State& state) {
  check(state, [](const char* text, const char* ip) { return NetCheckIPRange(text, ip, false); });
}
BENCHMARK(check_kel)->Name("range_check/1/kel")->Arg(1);
BENCHMARK(check_kel)->Name("range_check/10/kel")->Arg(10);
BENCHMARK(check_kel)->Name("range_check/1000/kel")->Arg(1000);

void check_plain(benchmark::State& state) { check(state, check_plainly); }
BENCHMARK(check_plain)->Name("range_check/1/plain")->Arg(1);
BENCHMARK(check_plain)->Name("range_check/10/plain")->Arg(10);
BENCHMARK(check_plain)->Name("range_check/1000/plain")->Arg(1000);

}  // namespace
