// A processor without the wider registers that most x86 processors have.

#pragma once

#if defined(__x86_64__) && defined(__linux__)
#define VARN_HAS_NARROW_REGISTERS

/// __builtin_cpu_supports("avx2") is false, for as long as the object lives.
class NarrowRegisters {
 public:
  NarrowRegisters();
  NarrowRegisters(const NarrowRegisters&) = delete;
  NarrowRegisters& operator=(const NarrowRegisters&) = delete;
  ~NarrowRegisters();

 private:
  unsigned before_;
};

#endif
