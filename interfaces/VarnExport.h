// What the loadable library shows to the programs that load it. Everything else is compiled hidden.

#pragma once

/// Stands before the function, or behind `class` or `struct`, that a program may use.
#define VARN_EXPORT [[gnu::visibility("default")]]
