#include "scheduler/methods/UploadClaims.h"

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"

namespace parallel::scheduler::methods {

using threads::MutexLock;

UploadClaims::Claim::Claim(UploadClaims& claims, Upload upload) : claims_(claims), upload_(std::move(upload)) {
  const MutexLock lock(claims_.mutex_);
  if (!claims_.underWay_.insert(upload_).second)
    throw Exception<parallel::scheduler::UploadUnderWay>(upload_.second.text());
}

UploadClaims::Claim::~Claim() {
  const MutexLock lock(claims_.mutex_);
  claims_.underWay_.erase(upload_);
}

}  // namespace parallel::scheduler::methods
