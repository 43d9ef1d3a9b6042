// One HTTP or HTTPS exchange, without its redirects.

#pragma once

#include <string>

#include "AgentSettings.h"
#include "DownloadPace.h"
#include "DownloadTarget.h"
#include "Validators.h"

namespace AgentUtils {

/// What a server answered.
struct Reply {
  enum class Kind {
    body,         ///< the whole body has arrived
    redirect,     ///< the file is to be had elsewhere
    notModified,  ///< the file is the one that the validators are about
    refused,      ///< there is no knowing from this answer: it has to be asked without validators
  };
  Kind kind;
  std::string redirect = {};   ///< the URL to ask next
  Validators validators = {};  ///< of the body, when they are worth keeping
};

/// Starts the library behind `transfer`, which otherwise starts with the first exchange. False when
/// it can't be loaded; each exchange then tries again, and tells why.
[[nodiscard]] bool startTransfers();

/// Fetches `url` into `target`; with validators, only when it is another file than theirs. `pace`
/// is that of the whole download, to which this exchange belongs. Throws `DownloadFailure` on
/// anything else than a reply: another status than 200 (a 304 that nobody asked for is one),
/// headers without their end, a body that is shorter than announced, a certificate that does not
/// verify, a stall. It is a `TransientFailure` when another try may go better.
[[nodiscard]] Reply transfer(const std::string& url, const Validators& known,
                             const AgentSettings& settings, DownloadTarget& target,
                             DownloadPace& pace);

}  // namespace AgentUtils
