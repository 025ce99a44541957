// How long the comparison of tokens takes, by where the first difference is (-1: nowhere).

#include <benchmark/benchmark.h>

#include "stream/peer_line.h"

namespace {

void compareTokens(benchmark::State& state) {
  const std::string token(128, 'a');
  std::string offered = token;
  if (state.range(0) >= 0) offered[static_cast<std::size_t>(state.range(0))] = 'b';
  for (auto _ : state) benchmark::DoNotOptimize(lumora::constantTimeEqual(offered, token));
}

}  // namespace

BENCHMARK(compareTokens)->ArgName("differs_at")->Arg(-1)->Arg(0)->Arg(64)->Arg(127);
