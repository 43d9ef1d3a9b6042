// Linked into every program of a build with the address sanitizer: what the leak check passes over.

extern "C" [[gnu::visibility("default")]] const char* __lsan_default_suppressions() {
  // GCC's object runtime forgets three small texts of its own for each class that is registered.
  return "leak:objc_malloc\n";
}

extern "C" [[gnu::visibility("default")]] const char* __lsan_default_options() {
  // What was passed over is otherwise reported on standard error, which programs' tests compare.
  return "print_suppressions=0";
}
