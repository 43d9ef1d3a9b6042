// Stands in for the header of this name on macOS, as far as the end of a process goes.

#pragma once

#include <stdint.h>
#include <time.h>

struct kevent {
  uintptr_t ident;
  int16_t filter;
  uint16_t flags;
  uint32_t fflags;
  intptr_t data;
  void* udata;
};

constexpr int16_t EVFILT_PROC = -5;
constexpr uint16_t EV_ADD = 0x0001;
constexpr uint32_t NOTE_EXIT = 0x80000000;
constexpr uint32_t NOTE_EXITSTATUS = 0x04000000;

extern "C" {
int kqueue();
int kevent(int queue, const struct kevent* changes, int changeCount, struct kevent* events,
           int eventCount, const timespec* timeout);
}

inline void EV_SET(struct kevent* event, uintptr_t ident, int16_t filter, uint16_t flags,
                   uint32_t fflags, intptr_t data, void* udata) {
  *event = {ident, filter, flags, fflags, data, udata};
}
