#include "support/RunEvents.h"

#include <atomic>

namespace VarnScriptRepository {
namespace {

std::atomic<ScriptRunObserver*> observerOfHost{nullptr};

}  // namespace

ScriptRunObserver::~ScriptRunObserver() = default;
void ScriptRunObserver::stepFailed(const FailedStep& /*step*/) {}
void ScriptRunObserver::scriptStarts(const ScriptStart& /*start*/) {}
void ScriptRunObserver::scriptStarted(int /*processID*/) {}
void ScriptRunObserver::outputTaken(std::string_view /*output*/) {}
void ScriptRunObserver::processEnded() {}
void ScriptRunObserver::scriptEnded(const ScriptEnd& /*end*/) {}

void setScriptRunObserver(ScriptRunObserver* observer) noexcept {
  observerOfHost.store(observer, std::memory_order_release);
}

ScriptRunObserver* scriptRunObserver() noexcept {
  return observerOfHost.load(std::memory_order_acquire);
}

}  // namespace VarnScriptRepository
