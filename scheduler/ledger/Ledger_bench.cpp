// What a ledger costs: a task from its grant to its end, with few and with very many queued; and memory.
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <string>
#include <utility>

#include "scheduler/ledger/Ledger.h"

namespace parallel::scheduler::ledger {
namespace {

// Nothing that has ended is asked for.
class NoArchive final : public Archive {
 public:
  std::optional<AttemptRecord> attempt(const AttemptKey&) const override { return std::nullopt; }
  TaskSet endedTasks(JobId, TaskSpan, TaskState) const override { return {}; }
};

constexpr Moment kNow{};

class Site {
 public:
  explicit Site(std::uint32_t cores) : room_{cores, 0, {}} {
    Join join;
    join.key = "worker";
    join.resources = room_;
    worker_ = ledger_.join(join, kNow).answer().worker;
  }

  void submit(std::uint64_t count) {
    SubmitJob job;
    job.key = std::to_string(++keys_);
    job.arrays.resize(1);
    job.arrays[0].count = count;
    ledger_.submitJob(job, kNow);
    left_ += count;
  }
  std::uint64_t left() const { return left_; }

  // So many tasks: taken in one message, and handed in by another.
  void run(std::uint32_t count) {
    const auto taken = ledger_.take({worker_, ++sequence_, {}, room_, count}, kNow);
    benchmark::DoNotOptimize(taken.changes);
    Finish finish{worker_, {}};
    for (const Grant& grant : taken.answer().grants)
      finish.results.push_back({grant.attempt, {EndReason::success, 0}, {}});
    benchmark::DoNotOptimize(ledger_.finish(finish, kNow));
    left_ -= finish.results.size();
  }

  const Ledger& ledger() const { return ledger_; }

 private:
  NoArchive archive_;
  Ledger ledger_{archive_};
  Resources room_;
  WorkerId worker_{};
  std::uint64_t sequence_ = 0;
  std::uint64_t left_ = 0;
  int keys_ = 0;
};

// Arguments: tasks queued, tasks in one message.
void Ledger_TakeAndFinish_Queued(benchmark::State& state) {
  const auto queued = static_cast<std::uint64_t>(state.range(0));
  const auto batch = static_cast<std::uint32_t>(state.range(1));
  Site site(batch);
  site.submit(queued);
  for (auto _ : state) {
    if (site.left() < queued)
      site.submit(queued);  // so that always so many are queued; once for many tasks
    site.run(batch);
  }
  state.SetItemsProcessed(state.iterations() * batch);
}
BENCHMARK(Ledger_TakeAndFinish_Queued)->ArgsProduct({{1'000, 1'000'000}, {1, 16}});

// Arguments: jobs, tasks in each. Bytes that the allocator has given out, with all of them queued.
void Ledger_Memory_Queued(benchmark::State& state) {
  std::size_t nbytes = 0;
  for (auto _ : state) {
    const std::size_t before = mallinfo2().uordblks + mallinfo2().hblkhd;
    Site site(1);
    for (std::int64_t job = 0; job < state.range(0); ++job)
      site.submit(static_cast<std::uint64_t>(state.range(1)));
    nbytes = mallinfo2().uordblks + mallinfo2().hblkhd - before;
  }
  state.counters["bytes"] = static_cast<double>(nbytes);
}
// Once: what was freed before and is used again would not be seen.
BENCHMARK(Ledger_Memory_Queued)
    ->Args({100, 1'000'000})
    ->Args({10'000, 100})
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);

// Of a million tasks in one array so many have started and not ended.
void Ledger_Memory_Running(benchmark::State& state) {
  std::size_t nbytes = 0;
  const auto running = static_cast<std::uint32_t>(state.range(0));
  for (auto _ : state) {
    NoArchive archive;
    Ledger ledger(archive);
    SubmitJob job;
    job.arrays.resize(1);
    job.arrays[0].count = 1'000'000;
    ledger.submitJob(job, kNow);
    const WorkerId worker = ledger.join({}, kNow).answer().worker;
    const std::size_t before = mallinfo2().uordblks + mallinfo2().hblkhd;
    ledger.take({worker, 1, {}, {running, 0, {}}, running}, kNow);
    nbytes = mallinfo2().uordblks + mallinfo2().hblkhd - before;
  }
  state.counters["bytes_each"] = static_cast<double>(nbytes) / running;
}
BENCHMARK(Ledger_Memory_Running)->Arg(10'000)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace parallel::scheduler::ledger
