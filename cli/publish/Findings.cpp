#include "publish/Findings.h"

#include <iterator>
#include <utility>

#include "PrintableText.h"

namespace VarnScripts::publishing {

std::string textOf(const Finding& finding) {
  std::string text = finding.place.file;
  if (finding.place.line > 0) text += ":" + std::to_string(finding.place.line);
  text += ": ";
  if (finding.kind == Finding::Kind::warning) text += "warning: ";
  return text + finding.what + "; " + finding.remedy;
}

std::string quoted(std::string_view text) { return '"' + printable(text) + '"'; }

void Findings::refuse(Place place, std::string what, std::string remedy) {
  all_.push_back({Finding::Kind::refusal, std::move(place), std::move(what), std::move(remedy)});
  ++refusals_;
}

void Findings::warn(Place place, std::string what, std::string remedy) {
  all_.push_back({Finding::Kind::warning, std::move(place), std::move(what), std::move(remedy)});
}

void Findings::append(Findings more) {
  all_.insert(all_.end(), std::make_move_iterator(more.all_.begin()),
              std::make_move_iterator(more.all_.end()));
  refusals_ += more.refusals_;
}

}  // namespace VarnScripts::publishing
