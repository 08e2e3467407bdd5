// What every transport must do with what a service says of a call before it replies.
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/spf/grpc/TransportsTest.h"
#include "platform/threads/Mutex.h"

namespace agent::spf::testing {
namespace {

using parallel::threads::ConditionVariable;
using parallel::threads::MutexLock;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

// What a caller is told.
class Notices {
 public:
  core::Caller listener(bool waits = false) {
    core::Caller caller;
    caller.waits = waits;
    caller.noticed = [this](std::string_view text) {
      const MutexLock lock(mutex_);
      texts_.emplace_back(text);
      changed_.notifyAll();
    };
    return caller;
  }

  // Once there are so many.
  std::vector<std::string> take(std::size_t count) {
    MutexLock lock(mutex_);
    changed_.waitFor(lock, kDeadline, [&]() ZKS_REQUIRES(mutex_) { return texts_.size() >= count; });
    return texts_;
  }
  std::vector<std::string> soFar() { return take(0); }

 private:
  parallel::threads::Mutex mutex_;
  ConditionVariable changed_;
  std::vector<std::string> texts_ ZKS_GUARDED_BY(mutex_);
};

class TransportsNotices : public Transports {
 protected:
  Notices& notices() { return notices_; }
  std::string readReply(core::Caller caller) {
    auto reply = start(client(), "tell", sourceOf("request"), std::move(caller));
    return readAll(*await(reply)->getImportedIstream());
  }

 private:
  Notices notices_;
};

TEST_P(TransportsNotices, ReachTheCallerInOrderWhileTheHandlerIsAtWork) {
  serve("tell", [probe = probe()](ServerCall& call) {
    call.notify("queued");
    call.notify("running");
    awaitEvent(probe->mayGoOn);
    call.reply() << "done";
  });
  auto reply = start(client(), "tell", sourceOf("request"), notices().listener());
  EXPECT_THAT(notices().take(2), ElementsAre("queued", "running"));
  EXPECT_EQ(reply.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
  probe()->mayGoOn.set_value();
  EXPECT_EQ(readAll(*await(reply)->getImportedIstream()), "done");
}

TEST_P(TransportsNotices, ReachACallerThatWaits) {
  serve("tell", [](ServerCall& call) {
    call.notify("running");
    call.reply() << "done";
  });
  EXPECT_EQ(readReply(notices().listener(true)), "done");
  EXPECT_THAT(notices().soFar(), ElementsAre("running"));
}

TEST_P(TransportsNotices, AreDroppedForACallerThatDoesNotListen) {
  serve("tell", [](ServerCall& call) {
    call.notify("running");
    call.reply() << "done";
  });
  EXPECT_EQ(readReply({}), "done");
}

TEST_P(TransportsNotices, AreDroppedOnceTheReplyHasBegun) {
  serve("tell", [](ServerCall& call) {
    call.reply() << "begun" << std::flush;
    call.notify("too late");
  });
  EXPECT_EQ(readReply(notices().listener()), "begun");
  EXPECT_THAT(notices().soFar(), IsEmpty());
}

TEST_P(TransportsNotices, MayComeFromWhatResumesADeferredCall) {
  serve("tell", [](ServerCall& call) {
    call.notify("waiting");
    call.defer()->resume([](ServerCall& again) {
      again.notify("resumed");
      again.reply() << "done";
    });
  });
  EXPECT_EQ(readReply(notices().listener()), "done");
  EXPECT_THAT(notices().soFar(), ElementsAre("waiting", "resumed"));
}

TEST_P(TransportsNotices, LongestPassesAndALongerOneFails) {
  const std::string longest(ServerCall::kMostNoticeBytes, 'x');
  serve("tell", [longest](ServerCall& call) {
    call.notify(longest);
    call.notify(longest + "x");
  });
  EXPECT_EQ(chainThrownBy([&] { readReply(notices().listener()); }).at(0).text, "A notice of 1025 bytes is too long.");
  EXPECT_THAT(notices().soFar(), ElementsAre(longest));
}

TEST_P(TransportsNotices, WhatTheListenerThrowsIsDropped) {
  serve("tell", [](ServerCall& call) {
    call.notify("running");
    call.reply() << "done";
  });
  core::Caller caller;
  caller.noticed = [](std::string_view) { throw std::runtime_error("from the listener"); };
  EXPECT_EQ(readReply(std::move(caller)), "done");
}

INSTANTIATE_TRANSPORTS(TransportsNotices);

}  // namespace
}  // namespace agent::spf::testing
