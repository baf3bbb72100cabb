// How long does a whole program take that starts, takes some memory, prints a line and ends? Wall time
// of each process, from its start to its status; the programs lie in bench/startup.
#include <benchmark/benchmark.h>

#include <chrono>
#include <string>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// Runs the program with nowhere to print to; false when it cannot be run or fails.
bool run(const std::string &program, posix_spawn_file_actions_t *actions)
{
    char *argv[] = {const_cast<char *>(program.c_str()), nullptr};
    pid_t pid = 0;
    int status = 0;
    return posix_spawn(&pid, argv[0], actions, nullptr, argv, environ) == 0 && waitpid(pid, &status, 0) == pid &&
           status == 0;
}

void start_program(benchmark::State &state, const std::string &program)
{
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    for (auto _ : state) {
        const auto started = std::chrono::steady_clock::now();
        if (!run(program, &actions))
            state.SkipWithError("the program failed");
        state.SetIterationTime(std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count());
    }
    posix_spawn_file_actions_destroy(&actions);
}

} // namespace

int main(int argc, char **argv)
{
    benchmark::Initialize(&argc, argv);
    const std::string directory = STARTUP_PROGRAMS;
    for (const std::string name : {"korvaks", "bare", "apr", "glib_gio"}) {
        const std::string program = directory + "/start_" + name;
        if (access(program.c_str(), X_OK) == 0)
            benchmark::RegisterBenchmark(("startup/program/" + name).c_str(), start_program, program)->UseManualTime();
    }
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
