// GLib: a GSubprocess with both outputs on one pipe, taken by g_subprocess_communicate.

#include <gio/gio.h>

#include "../Contestant.h"

int main(int argc, char** argv) {
  const auto run = bench::runnerArguments(argc, argv);
  GSubprocessLauncher* const launcher = g_subprocess_launcher_new(static_cast<GSubprocessFlags>(
      G_SUBPROCESS_FLAGS_STDOUT_PIPE | G_SUBPROCESS_FLAGS_STDERR_MERGE));
  g_subprocess_launcher_set_cwd(launcher, run.directory.c_str());
  return bench::serve([&] {
    GError* error = nullptr;
    GSubprocess* const child = g_subprocess_launcher_spawnv(launcher, argv + 3, &error);
    if (child == nullptr) bench::fail(error->message);
    GBytes* output = nullptr;
    if (!g_subprocess_communicate(child, nullptr, nullptr, &output, nullptr, &error)) {
      bench::fail(error->message);
    }
    if (!g_subprocess_get_successful(child)) bench::fail("the program failed");
    const gsize size = g_bytes_get_size(output);
    g_bytes_unref(output);
    g_object_unref(child);
    return size;
  });
}
