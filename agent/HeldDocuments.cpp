// Where these modules and the library are one, documents that lie on the computer are held against
// the signed list without a call of the host: whoever sets keys is not to forget half of it.

#include "AgentSettings.h"
#include "VarnScriptRepository/ScriptRepositoryHost.h"

namespace AgentUtils {
namespace {

// Without keys it takes every document.
[[maybe_unused]] const bool isHeld = (VarnScriptRepository::setDocumentTest(isBoundDocument), true);

}  // namespace
}  // namespace AgentUtils
