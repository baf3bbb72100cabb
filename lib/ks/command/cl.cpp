// Handles: their memory, their words from an argument vector, their end; and the last error.
#include "command/cl_impl.h"

#include "kernel/ks_guard.h"
#include "kernel/ks_locks.h"
#include "base/ks_msg.h"

#include <korvaks/imsg.h>
#include <korvaks/stg.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstring>
#include <iterator>

constinit int cl_mallocs = 0;
constinit int cl_frees = 0;
constinit int cl_brkit = 0;

namespace {

using ks::cl::create_handle;
using ks::cl::Extent;
using ks::cl::here;
using ks::cl::move_to_word;
using ks::cl::require_handle;
using ks::cl::WordStore;

// The counters are plain numbers for whoever reads them; handles of several threads count in them.
std::atomic_ref<int> shared(int &counter)
{
    return std::atomic_ref<int>(counter);
}

bool is_failure_injected()
{
    return shared(cl_brkit).load(std::memory_order_relaxed) != 0 &&
           shared(cl_brkit).fetch_sub(1, std::memory_order_relaxed) == 1;
}

void *cl_malloc(std::size_t size)
{
    void *const block = is_failure_injected() ? nullptr : stg_malloc(size);
    if (block != nullptr)
        shared(cl_mallocs).fetch_add(1, std::memory_order_relaxed);
    return block;
}

void cl_free(void *block)
{
    if (block == nullptr)
        return;
    stg_free(block);
    shared(cl_frees).fetch_add(1, std::memory_order_relaxed);
}

void free_handle(cl_handle *clh)
{
    clh->cl_magic = 0; // so that a copy of the handle is not taken for a live one
    cl_free(clh->text);
    cl_free(clh->seen_letters);
    cl_free(clh->words);
    cl_free(clh);
}

bool allocate_blocks(cl_handle *clh, const Extent &extent)
{
    const std::size_t text_bytes = std::max<std::size_t>(extent.bytes, 1); // room for "" without words
    clh->text = static_cast<char *>(cl_malloc(text_bytes));
    if (clh->text == nullptr)
        return false;
    clh->seen_letters = static_cast<char *>(cl_malloc(text_bytes));
    if (clh->seen_letters == nullptr)
        return false;
    clh->words = static_cast<cl_word *>(cl_malloc((extent.words + 1) * sizeof *clh->words));
    return clh->words != nullptr;
}

// False when the sum overflows.
bool measure_argv(int argc, char *const *argv, Extent &out_extent)
{
    out_extent.words = static_cast<std::size_t>(argc);
    for (int i = 0; i < argc; ++i) {
        here.require(argv[i] != nullptr, "argv[i] != NULL");
        if (__builtin_add_overflow(out_extent.bytes, std::strlen(argv[i]) + 1, &out_extent.bytes))
            return false;
    }
    return true;
}

// The texts of errors 300 to 304; 300 stands for every number that has no text of its own.
constexpr int first_number = 300;
constexpr unsigned text_messages[] = {ks_msg_cl_unknown_error, ks_msg_out_of_memory, ks_msg_cl_bad_option,
                                      ks_msg_cl_conflicting_option, ks_msg_cl_bad_argument};
constexpr std::size_t text_count = std::size(text_messages);

constinit char error_texts[text_count][256]; // written once, under cl_crit
constinit std::atomic<bool> are_texts_ready{false};

void prepare_error_texts()
{
    if (are_texts_ready.load(std::memory_order_acquire))
        return;
    const ks::LockGuard lock(ks::cl_crit);
    if (are_texts_ready.load(std::memory_order_relaxed))
        return;
    for (std::size_t i = 0; i < text_count; ++i)
        (void)imsg_snprintf(error_texts[i], sizeof error_texts[i], &_ks_ks_msg_table,
                            static_cast<int>(text_messages[i])); // a text that is too long is cut
    are_texts_ready.store(true, std::memory_order_release);
}

} // namespace

namespace ks::cl {

cl_handle *create_handle(const Extent &extent)
{
    if (extent.words >= INT_MAX || extent.bytes > INT_MAX)
        return nullptr;
    auto *const clh = static_cast<cl_handle *>(cl_malloc(sizeof(cl_handle)));
    if (clh == nullptr)
        return nullptr;
    *clh = cl_handle{};
    if (!allocate_blocks(clh, extent)) {
        free_handle(clh);
        return nullptr;
    }
    clh->cl_magic = CL_MAGIC;
    clh->text_length = static_cast<int>(extent.bytes);
    clh->option_end = clh->text + clh->text_length;
    clh->seen_letters[0] = '\0';
    clh->words[0] = {0, clh->option_end};
    return clh;
}

void WordStore::append(const char *bytes, std::size_t count)
{
    std::memcpy(end_, bytes, count);
    end_ += count;
}

void WordStore::end_word()
{
    cl_word &word = clh_->words[clh_->word_count++];
    word.length = static_cast<std::uint32_t>(end_ - word.start);
    *end_++ = '\0';
    clh_->words[clh_->word_count] = {0, clh_->text + clh_->text_length};
}

void move_to_word(cl_handle *clh, int word)
{
    clh->current_word = std::min(word, clh->word_count);
    clh->word_start = clh->words[clh->current_word].start;
    clh->cursor = clh->word_start;
}

void clear_error(cl_handle *clh)
{
    clh->error_number = CL_NO_ERROR;
    clh->error_word = nullptr;
    clh->error_option[0] = '\0';
}

void set_error(cl_handle *clh, int number, char letter)
{
    clh->error_number = number;
    clh->error_word = clh->word_start;
    clh->error_option[0] = letter;
}

} // namespace ks::cl

extern "C" {

cl_handle *cl_parse_argv(int argc, char *const *argv, int *err)
{
    here.require(argc >= 0, "argc >= 0");
    here.require(argc == 0 || argv != nullptr, "argv != NULL");
    Extent extent;
    cl_handle *const clh = measure_argv(argc, argv, extent) ? create_handle(extent) : nullptr;
    *err = clh == nullptr ? CL_OUT_OF_MEMORY : CL_NO_ERROR;
    if (clh == nullptr)
        return nullptr;
    WordStore store(clh);
    for (int i = 0; i < argc; ++i) {
        store.begin_word();
        store.append(argv[i], std::strlen(argv[i]));
        store.end_word();
    }
    move_to_word(clh, 1);
    return clh;
}

void cl_destroy(cl_handle **clh)
{
    require_handle(clh != nullptr ? *clh : nullptr);
    free_handle(*clh);
    *clh = nullptr;
}

int cl_errno(cl_handle *clh)
{
    require_handle(clh);
    return clh->error_number;
}

const char *cl_estr(cl_handle *clh)
{
    require_handle(clh);
    return clh->error_word == nullptr ? "" : clh->error_word;
}

const char *cl_eopt(cl_handle *clh)
{
    require_handle(clh);
    return clh->error_option;
}

const char *cl_strerror(int number)
{
    if (number == CL_NO_ERROR)
        return "";
    prepare_error_texts();
    const bool has_text = number >= CL_OUT_OF_MEMORY && number <= CL_BAD_ARGUMENT;
    return error_texts[has_text ? number - first_number : 0];
}
}
