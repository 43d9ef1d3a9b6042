#include "NarrowRegisters.h"

#ifdef VARN_HAS_NARROW_REGISTERS

namespace {

struct ProcessorModel {
  unsigned vendor;
  unsigned type;
  unsigned subtype;
  unsigned features;
};

constexpr unsigned kAVX2 = 1U << 10;

}  // namespace

// The compilers' runtime fills it when the program starts. In a file of its own: where the builtin
// is used, clang knows this variable as one of another type.
// NOLINTNEXTLINE(bugprone-reserved-identifier)
extern "C" ProcessorModel __cpu_model;

NarrowRegisters::NarrowRegisters() : before_(__cpu_model.features) {
  __cpu_model.features &= ~kAVX2;
}

NarrowRegisters::~NarrowRegisters() { __cpu_model.features = before_; }

#endif
