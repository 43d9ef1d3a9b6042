// Which Perl scripts can be read by Perl without anything of them being run.
//
// Asked for the syntax alone, Perl still runs BEGIN blocks and imports what `use` lines name, with
// the script's own subroutines where they take the place of a module's. Most scripts of an
// administrator have none of that but `use strict;` and the like at their beginning. Any thread.

#pragma once

#include <string_view>

namespace VarnScripts::publishing {

/// Whether the script has no word that could make Perl run anything of it while it reads it: what
/// it loads, it loads in its first lines, by literal lists, from Perl's own library. When in doubt,
/// no.
[[nodiscard]] bool isOnlyReadByPerl(std::string_view text);

}  // namespace VarnScripts::publishing
