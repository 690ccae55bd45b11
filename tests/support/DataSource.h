// A data manager for tests, made as the library makes it, over a block or over a host's stream.
#ifndef TESTS_SUPPORT_DATA_SOURCE_H
#define TESTS_SUPPORT_DATA_SOURCE_H

#include <optional>
#include <string>
#include <utility>

#include "BitAssembler.h"
#include "HostStream.h"
#include "KelDecDataMgr.h"
#include "base/KelMemFuncDefs.h"

namespace test {

/// How bytes reach a data manager.
struct Delivery {
  bool memory = true;
  bool seekable = true;
  std::uint32_t capacity = kel::kWindowBytes;
  KelLong mostPerRead = INT32_MAX;
};

class DataSource {
 public:
  DataSource(Bytes content, kel::Flavour flavour, const Delivery& how = {})
      : bytes(std::move(content)), manager_(kel::OwnedRecord<kel::KelDecDataMgr>::Make()) {
    kel::ScopeGuard release([&] { manager_->Release(); });
    if (how.memory) {
      const KelCompressedData block{bytes.data(), static_cast<KelULong>(bytes.size())};
      manager_->InitFromMemory(block, flavour);
    } else {
      host.emplace(bytes, how.seekable);
      host->mostPerRead = how.mostPerRead;
      isThere =
          manager_->InitFromStream(kel::kFirstLoadBytes, how.capacity, host->Stream(), flavour);
    }
    release.Disarm();
  }
  ~DataSource() { manager_->Release(); }
  DataSource(const DataSource&) = delete;
  DataSource& operator=(const DataSource&) = delete;

  kel::KelDecDataMgr& operator*() { return *manager_; }
  kel::KelDecDataMgr* operator->() { return manager_.Get(); }

  Bytes bytes;
  std::optional<HostStream> host;
  bool isThere = true;  ///< a byte at least, of a stream

 private:
  kel::OwnedRecord<kel::KelDecDataMgr> manager_;
};

/// Numbers as text, for comparing what was read at one glance.
template <class T>
std::string List(const T* values, std::int64_t n) {
  std::string text;
  for (std::int64_t i = 0; i < n; ++i)
    text.append(i != 0 ? "," : " ").append(std::to_string(values[i]));
  return text;
}
inline std::string List(std::initializer_list<std::int64_t> values) {
  return List(values.begin(), static_cast<std::int64_t>(values.size()));
}

}  // namespace test

#endif
