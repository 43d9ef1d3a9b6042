// Stands in for the header of this name on macOS.

#pragma once

extern "C" char*** _NSGetEnviron();
