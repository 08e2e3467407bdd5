#include "platform/protobufencoding/internal/MessageTypes.h"

#include <algorithm>
#include <map>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"
#include "platform/protobufencoding/internal/protobufCompat.h"
#include "platform/protobufencoding/parseQuietly.h"
#include "platform/threads/SharedMutex.h"

namespace parallel::protobufencoding {

namespace {

using google::protobuf::Descriptor;
using google::protobuf::DescriptorPool;
using google::protobuf::FileDescriptor;
using google::protobuf::FileDescriptorProto;

[[noreturn]] void throwBadSet(const std::string& reason) {
  throw Exception<::parallel::protobuf::DescriptorSetError>(reason);
}

// The types of one descriptor set, in a pool of their own: constant once built, so that looking up takes no lock.
class LoadedSet {
 public:
  explicit LoadedSet(const std::string& bytes) : bytes_(bytes), factory_(&pool_) {
    google::protobuf::FileDescriptorSet set;
    if (!parseQuietly(set, bytes) || !set.IsInitialized())
      throwBadSet("the bytes are not a FileDescriptorSet");
    if (set.file().empty())
      throwBadSet("it holds no files");
    for (const FileDescriptorProto& file : set.file()) {
      if (!files_.emplace(file.name(), &file).second)
        throwBadSet("it holds the file \"" + file.name() + "\" twice");
    }
    for (const FileDescriptorProto& file : set.file())
      build(file, 0);
    files_.clear();
  }

  const std::string& bytes() const { return bytes_; }
  const DescriptorPool* pool() const { return &pool_; }

  std::unique_ptr<google::protobuf::Message> create(const std::string& fullName) {
    const Descriptor* type = pool_.FindMessageTypeByName(fullName);
    return type == nullptr ? nullptr : std::unique_ptr<google::protobuf::Message>(factory_.GetPrototype(type)->New());
  }

 private:
  // A file's imports are built before it, whatever their order in the set. Those left out of the set are taken from the
  // compiled ones.
  void build(const FileDescriptorProto& file, std::size_t importDepth) {
    if (pool_.FindFileByName(file.name()) != nullptr)
      return;
    if (importDepth > kMaxImportDepth)
      throwBadSet("the file \"" + file.name() + "\" imports itself, or imports nest too deep");
    for (const std::string& import : file.dependency())
      buildImport(import, importDepth + 1);
    compat::FirstDescriptorError error;
    if (pool_.BuildFileCollectingErrors(file, &error) == nullptr)
      throwBadSet(error.text());
  }

  void buildImport(const std::string& name, std::size_t importDepth) {
    const auto inSet = files_.find(name);
    if (inSet != files_.end())
      return build(*inSet->second, importDepth);
    const FileDescriptor* compiled = DescriptorPool::generated_pool()->FindFileByName(name);
    if (compiled == nullptr)
      throwBadSet("it lacks the imported file \"" + name + "\" (protoc's --include_imports adds them)");
    FileDescriptorProto copy;
    compiled->CopyTo(&copy);
    build(copy, importDepth);
  }

  static constexpr std::size_t kMaxImportDepth = 1000;

  std::string bytes_;
  DescriptorPool pool_;
  google::protobuf::DynamicMessageFactory factory_;
  std::map<std::string, const FileDescriptorProto*> files_;  // only while building
};

class LoadedSets {
 public:
  void add(const std::string& bytes) {
    if (isLoaded(bytes))
      return;
    auto made = std::make_unique<LoadedSet>(bytes);
    const threads::WriterLock lock(mutex_);
    sets_.push_back(std::move(made));
  }

  std::unique_ptr<google::protobuf::Message> create(const std::string& fullName) {
    const threads::ReaderLock lock(mutex_);
    for (auto set = sets_.rbegin(); set != sets_.rend(); ++set) {
      if (auto message = (*set)->create(fullName))
        return message;
    }
    return nullptr;
  }

  bool owns(const DescriptorPool* pool) {
    const threads::ReaderLock lock(mutex_);
    return std::any_of(sets_.begin(), sets_.end(), [&](const auto& set) { return set->pool() == pool; });
  }

 private:
  // Only a set that is the newest already, so that loading an older one again brings its types to the front.
  bool isLoaded(const std::string& bytes) {
    const threads::ReaderLock lock(mutex_);
    return !sets_.empty() && sets_.back()->bytes() == bytes;
  }

  threads::SharedMutex mutex_;
  std::vector<std::unique_ptr<LoadedSet>> sets_ ZKS_GUARDED_BY(mutex_);  // only grows
};

LoadedSets& loadedSets() {
  static auto* const sets = new LoadedSets;  // never destroyed: messages of these types may outlive main
  return *sets;
}

}  // namespace

std::unique_ptr<google::protobuf::Message> MessageTypes::createCompiled(const std::string& fullName) {
  const Descriptor* type = DescriptorPool::generated_pool()->FindMessageTypeByName(fullName);
  if (type == nullptr)
    return nullptr;
  const google::protobuf::Message* prototype =
      google::protobuf::MessageFactory::generated_factory()->GetPrototype(type);
  return prototype == nullptr ? nullptr : std::unique_ptr<google::protobuf::Message>(prototype->New());
}

std::unique_ptr<google::protobuf::Message> MessageTypes::create(const std::string& fullName) {
  if (auto compiled = createCompiled(fullName))
    return compiled;
  return loadedSets().create(fullName);
}

void MessageTypes::add(const std::string& descriptorSet) {
  loadedSets().add(descriptorSet);
}

bool MessageTypes::lastsForever(const Descriptor* descriptor) {
  const DescriptorPool* pool = descriptor->file()->pool();
  return pool == DescriptorPool::generated_pool() || loadedSets().owns(pool);
}

}  // namespace parallel::protobufencoding
