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
  const auto& mapping = entry.scriptPathMapping;
  if (!mapping || mapping->empty()) return false;
  return guarded(false, [&] { return test(path, mapping->front().filepath); });
}

}  // namespace VarnScriptRepository
