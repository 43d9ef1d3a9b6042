#include "DocumentTest.h"

#include <atomic>

#include "VarnScriptRepository/ScriptRepositoryHost.h"
#include "support/Guard.h"

namespace VarnScriptRepository {
namespace {

std::atomic<DocumentTest> testOfHost{nullptr};

}  // namespace

void setDocumentTest(DocumentTest test) noexcept {
  testOfHost.store(test, std::memory_order_release);
}

bool isDocumentOf(const ScriptRepositoryMeta& entry, const std::string& path) {
  const DocumentTest test = testOfHost.load(std::memory_order_acquire);
  if (test == nullptr) return true;
  return guarded(false, [&] {
    const auto& mapping = entry.scriptPathMapping;
    return test(path, mapping && !mapping->empty() ? mapping->front().filepath : std::string());
  });
}

}  // namespace VarnScriptRepository
