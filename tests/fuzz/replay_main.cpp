// Runs a fuzz target without a fuzzer: each file of its corpus as it is, then a bounded number of
// seeded mutations of them. Which input was last under way is in the file "<program>.input" when a
// property fails, ready to be kept in the corpus.
#include "fuzz/fuzz_support.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string_view>

#include <fcntl.h>
#include <unistd.h>

namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr std::size_t mutations_max = 20000;
constexpr std::chrono::milliseconds time_for_mutations{400};
constexpr std::size_t input_size_max = 4096;

const Bytes *under_way = nullptr;
std::string input_file;

extern "C" void keep_input(int)
{
    const int fd = open(input_file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd >= 0 && under_way != nullptr)
        (void)!write(fd, under_way->data(), under_way->size());
    // The signal's action is the default one again: returning ends the process.
}

void run(const Bytes &input)
{
    under_way = &input;
    // A copy of its own, so that a read past the end is seen.
    const auto copy = fuzz::exact_copy(input.data(), input.size());
    (void)LLVMFuzzerTestOneInput(copy.get(), input.size());
}

std::vector<Bytes> read_corpus(const char *directory)
{
    std::vector<std::filesystem::path> paths;
    for (const auto &entry : std::filesystem::directory_iterator(directory))
        paths.push_back(entry.path());
    std::sort(paths.begin(), paths.end());
    std::vector<Bytes> corpus;
    for (const auto &path : paths) {
        std::ifstream file(path, std::ios::binary);
        corpus.emplace_back(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
    }
    return corpus;
}

class Mutator {
  public:
    explicit Mutator(const std::vector<Bytes> &corpus) : corpus_(corpus) {}

    Bytes next()
    {
        Bytes input = any_seed();
        for (std::size_t steps = 1 + below(6); steps > 0; --steps)
            change(input);
        if (input.size() > input_size_max)
            input.resize(input_size_max);
        return input;
    }

  private:
    std::size_t below(std::size_t limit) { return random_() % limit; }
    const Bytes &any_seed() { return corpus_[below(corpus_.size())]; }
    std::uint8_t any_byte() { return static_cast<std::uint8_t>(below(256)); }

    // A byte that formats give a meaning to.
    std::uint8_t telling_byte()
    {
        constexpr std::string_view telling("\0\1\x7F\x80\xFF%*${}\\\"'-\n", 15);
        return static_cast<std::uint8_t>(telling[below(telling.size())]);
    }

    void change(Bytes &input)
    {
        if (input.empty()) {
            input.push_back(any_byte());
            return;
        }
        const std::size_t place = below(input.size());
        const auto at = input.begin() + static_cast<Bytes::difference_type>(place);
        switch (below(7)) {
        case 0:
            *at ^= static_cast<std::uint8_t>(1U << below(8));
            break;
        case 1:
            *at = any_byte();
            break;
        case 2:
            *at = telling_byte();
            break;
        case 3:
            input.insert(below(input.size() + 1) == 0 ? input.end() : at, telling_byte());
            break;
        case 4:
            input.erase(at);
            break;
        case 5:
            input.resize(place);
            break;
        default: {
            const Bytes &other = any_seed();
            input.insert(at, other.begin(), other.end());
        }
        }
    }

    const std::vector<Bytes> &corpus_;
    std::mt19937 random_{20240229};
};

std::size_t run_mutations(const std::vector<Bytes> &corpus)
{
    const auto end = std::chrono::steady_clock::now() + time_for_mutations;
    Mutator mutator(corpus);
    std::size_t count = 0;
    for (; count < mutations_max && std::chrono::steady_clock::now() < end; ++count)
        run(mutator.next());
    return count;
}

} // namespace

int main(int argc, char **argv)
{
    const std::vector<Bytes> corpus = argc == 2 ? read_corpus(argv[1]) : std::vector<Bytes>{};
    if (corpus.empty()) {
        std::fprintf(stderr, "usage: %s CORPUS-DIRECTORY, with inputs\n", argv[0]);
        return 2;
    }
    input_file = std::string(argv[0]) + ".input";
    struct sigaction action = {};
    action.sa_handler = keep_input;
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    for (const int sig : {SIGABRT, SIGSEGV, SIGBUS, SIGFPE, SIGILL})
        (void)sigaction(sig, &action, nullptr);
    run({});
    for (const Bytes &input : corpus)
        run(input);
    const std::size_t mutated = run_mutations(corpus);
    std::printf("%zu inputs of the corpus, %zu mutations\n", corpus.size(), mutated);
    return 0;
}
