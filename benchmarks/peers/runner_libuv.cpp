// libuv: uv_spawn with both outputs on one pipe, read on the default loop into a string.

#include <uv.h>

#include "../Contestant.h"

namespace {

struct Run {
  std::string output;
  std::vector<char> buffer = std::vector<char>(65536);
  std::int64_t status = -1;
};

void allocate(uv_handle_t* handle, size_t, uv_buf_t* buffer) {
  auto& run = *static_cast<Run*>(handle->data);
  *buffer = uv_buf_init(run.buffer.data(), static_cast<unsigned>(run.buffer.size()));
}

void onRead(uv_stream_t* stream, ssize_t count, const uv_buf_t* buffer) {
  if (count < 0) {
    uv_close(reinterpret_cast<uv_handle_t*>(stream), nullptr);
    return;
  }
  static_cast<Run*>(stream->data)->output.append(buffer->base, static_cast<size_t>(count));
}

void onExit(uv_process_t* process, int64_t status, int) {
  static_cast<Run*>(process->data)->status = status;
  uv_close(reinterpret_cast<uv_handle_t*>(process), nullptr);
}

}  // namespace

int main(int argc, char** argv) {
  const auto arguments = bench::runnerArguments(argc, argv);
  uv_loop_t* const loop = uv_default_loop();
  return bench::serve([&] {
    Run run;
    uv_file ends[2];
    if (uv_pipe(ends, UV_NONBLOCK_PIPE, 0) != 0) bench::fail("uv_pipe");
    uv_stdio_container_t stdio[3]{};
    stdio[0].flags = UV_IGNORE;
    stdio[1].flags = stdio[2].flags = UV_INHERIT_FD;
    stdio[1].data.fd = stdio[2].data.fd = ends[1];
    uv_process_options_t options{};
    options.file = arguments.program.c_str();
    options.args = argv + 3;
    options.cwd = arguments.directory.c_str();
    options.stdio = stdio;
    options.stdio_count = 3;
    options.exit_cb = onExit;
    uv_process_t process;
    process.data = &run;
    if (uv_spawn(loop, &process, &options) != 0) bench::fail("uv_spawn");
    uv_fs_t closing;
    uv_fs_close(loop, &closing, ends[1], nullptr);
    uv_pipe_t pipe;
    uv_pipe_init(loop, &pipe, 0);
    pipe.data = &run;
    uv_pipe_open(&pipe, ends[0]);
    uv_read_start(reinterpret_cast<uv_stream_t*>(&pipe), allocate, onRead);
    uv_run(loop, UV_RUN_DEFAULT);
    if (run.status != 0) bench::fail("the program failed");
    return run.output.size();
  });
}
