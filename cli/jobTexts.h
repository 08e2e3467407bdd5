// What is said of jobs and tasks, for people and for programs.
#pragma once

#include <cstdint>
#include <string>

#include "platform/zksmessages/jobs.pb.h"

namespace zks {

// "running", "succeeded"
std::string stateText(parallel::zksmessages::TaskState state);

// Of a whole job: "running" as long as a task of it runs, else "held", "ready", "waiting", "open"; and "failed", "cancelled",
// "skipped" or "succeeded" when it has ended, the first of these that one of its tasks has come to.
std::string jobStateText(const parallel::zksmessages::JobSummary& job);

std::uint64_t countAll(const parallel::zksmessages::TaskCounts& counts);
std::uint64_t countEnded(const parallel::zksmessages::TaskCounts& counts);
bool allSucceeded(const parallel::zksmessages::JobSummary& job);

// "200 tasks: 3 ready, 2 running, 195 succeeded"
std::string countsText(const parallel::zksmessages::TaskCounts& counts);
// {"waiting": 0, ...}, each state
std::string countsJson(const parallel::zksmessages::TaskCounts& counts);

// "exit code 3", "signal 9 (Killed)"; empty for none
std::string endingText(const parallel::zksmessages::Ending& ending);
// "exit_code", "worker_lost"
std::string reasonWord(parallel::zksmessages::Ending::Reason reason);

// "2026-11-22 14:05:09" in the user's zone, of milliseconds since 1970; empty for 0
std::string localTimeText(std::int64_t milliseconds);
// "2026-11-22T13:05:09.123Z"
std::string utcTimeText(std::int64_t milliseconds);

// "0.25 s", "45 s", "1 min 30 s", "2 h 5 min", "3 d 4 h"
std::string durationText(double seconds);
double secondsOf(const google::protobuf::Duration& duration);

// "job 7 (fit)"
std::string jobText(const parallel::zksmessages::JobSummary& job);

// "2 cores, 4.0 GiB, gpu=1"
std::string resourcesText(const parallel::zksmessages::Resources& resources);
std::string resourcesJson(const parallel::zksmessages::Resources& resources);

// Why a task waits, or how it ended and what it wrote last; empty when there is nothing to tell.
std::string taskNote(const parallel::zksmessages::TaskSummary& task);

// What a wait shows: "job 7: 195 of 200, 2 running, 1 failed [=====> ] 12.3/s, 4 s left", as much of it as so many columns have room for.
// `ended` tasks in the last `seconds` are what the rate is reckoned from.
std::string waitText(const std::string& name, const parallel::zksmessages::TaskCounts& counts, std::uint64_t ended,
                     double seconds, std::size_t columns);

}  // namespace zks
