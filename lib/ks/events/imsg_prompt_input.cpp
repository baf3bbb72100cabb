// Reading answers: lines of a stream, and files.
#include "events/imsg_prompt_impl.h"

#include "messages/imsg_impl.h"

#include <korvaks/pfm.h>
#include <korvaks/stg.h>
#include <korvaks/strutl.h>

#include "kernel/stg_quiet.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

namespace ks::prompt {

namespace {

constexpr std::size_t first_size = 128;

void wipe_and_free(char *bytes, std::size_t size)
{
    if (bytes == nullptr)
        return;
    explicit_bzero(bytes, size);
    stg_free_int(bytes, 1);
}

bool grow(Text &text, std::size_t needed)
{
    std::size_t size = std::max(text.size, first_size);
    while (size < needed)
        size *= 2;
    auto *larger = static_cast<char *>(heap_try_malloc(size));
    if (larger == nullptr) {
        errno = ENOMEM;
        return false;
    }
    std::copy_n(text.view().data(), text.length, larger);
    wipe_and_free(text.bytes, text.size);
    text.bytes = larger;
    text.size = size;
    return true;
}

void report_failure(const char *reason)
{
    (void)imsg_print(IMSG_ERROR, &_imsg_ks_msg_table, imsg_msg_input_failed, reason); // the result says it too
}

void report_error(int error)
{
    report_failure(imsg_strerror(error));
}

void report_overflow()
{
    char reason[128];
    (void)imsg_snprintf(reason, sizeof reason, &_imsg_ks_msg_table, imsg_msg_input_overflow); // a longer one is cut
    report_failure(reason);
}

// How the bytes of a line come to an end.
enum class Piece { more, feed, end, error };

// What the stream has read and nobody has asked for yet: taken without waiting, and no more of it than the line.
std::string_view read_ahead(FILE *in)
{
    return {in->_IO_read_ptr, static_cast<std::size_t>(in->_IO_read_end - in->_IO_read_ptr)};
}

// Bytes of a line that is too long are skipped: the next answer is the next line.
struct LineReader {
    FILE *in;
    Text &line;
    std::size_t skipped = 0;
    int error = 0;

    void add(std::string_view bytes)
    {
        if (error == 0 && bytes.size() <= IMSG_INPUT_MAX - line.length) {
            if (!append(line, bytes))
                error = errno;
            return;
        }
        skipped += bytes.size();
    }

    // The stream is locked for as long as nothing can block.
    Piece take_buffered()
    {
        flockfile(in);
        const std::string_view ahead = read_ahead(in);
        const std::size_t feed = ahead.find('\n');
        const std::string_view bytes = part_of(ahead, 0, feed);
        add(bytes);
        for (std::size_t i = 0; i < bytes.size() + (feed != ahead.npos ? 1 : 0); ++i)
            (void)getc_unlocked(in); // what stands in the buffer
        funlockfile(in);
        return feed != ahead.npos ? Piece::feed : Piece::more;
    }

    // One read of the system's, when there is something to read.
    Piece refill()
    {
        const int got = std::getc(in);
        const int got_errno = errno;
        if (got != EOF) {
            (void)std::ungetc(got, in); // the byte just read has room
            return Piece::more;
        }
        if (std::ferror(in) == 0)
            return Piece::end;
        std::clearerr(in);
        const bool can_wait = got_errno == EAGAIN && fileno(in) >= 0; // another reader was faster
        if (got_errno == EINTR || can_wait)
            return Piece::more;
        error = got_errno;
        return Piece::error;
    }

    Piece read()
    {
        for (;;) {
            if (const Piece piece = take_buffered(); piece != Piece::more)
                return piece;
            wait_for_input(in);
            if (const Piece piece = refill(); piece != Piece::more)
                return piece;
        }
    }
};

// A terminal can be read again after Ctrl-D.
void forget_end(FILE *in)
{
    if (isatty(fileno(in)) == 1)
        std::clearerr(in);
}

// NUL where memory is exhausted, which is printed.
char *copy_of(std::string_view text)
{
    auto *copy = static_cast<char *>(stg_malloc(text.size() + 1));
    if (copy == nullptr)
        return nullptr;
    std::memcpy(copy, text.data(), text.size());
    copy[text.size()] = '\0';
    return copy;
}

int give(std::string_view text, char **out_answer)
{
    if (text.find('\0') != text.npos) {
        report_error(EILSEQ);
        return IMSG_PROMPT_CANCELLED;
    }
    char *copy = copy_of(text);
    if (copy == nullptr)
        return IMSG_PROMPT_CANCELLED;
    *out_answer = copy;
    return IMSG_PROMPT_ANSWERED;
}

int get_line(FILE *in, const char *dflt, Scratch &scratch, char **out_answer)
{
    if (read_line(in, scratch.line) != Read::line)
        return IMSG_PROMPT_CANCELLED;
    const bool takes_default = scratch.line.length == 0 && dflt != nullptr;
    return give(takes_default ? dflt : scratch.line.view(), out_answer);
}

// False, with the reason printed, where the block becomes too long. Each line ends the one before it.
bool add_line(Scratch &scratch, bool is_first)
{
    if (scratch.block.length + scratch.line.length >= IMSG_INPUT_MAX) {
        report_overflow();
        return false;
    }
    if ((!is_first && !append(scratch.block, "\n")) || !append(scratch.block, scratch.line.view())) {
        report_error(errno);
        return false;
    }
    return true;
}

// What is left of a block that was refused is no answer to the next question.
void skip_block(FILE *in, Scratch &scratch)
{
    while (scratch.line.view() != "." && read_line(in, scratch.line) == Read::line)
        ;
}

int get_block(FILE *in, const char *dflt, Scratch &scratch, char **out_answer)
{
    bool is_first = true;
    for (;; is_first = false) {
        const Read read = read_line(in, scratch.line);
        if (read == Read::end && is_first)
            return IMSG_PROMPT_CANCELLED;
        if (read == Read::end)
            break;
        if (read == Read::line && scratch.line.view() == ".")
            break;
        if (read == Read::failed || !add_line(scratch, is_first)) {
            skip_block(in, scratch);
            return IMSG_PROMPT_CANCELLED;
        }
    }
    return give(is_first && dflt != nullptr ? dflt : scratch.block.view(), out_answer);
}

struct OpenFile {
    FILE *file = nullptr;
    Text text;
};

void release(OpenFile &open)
{
    const ErrnoSaver saver;
    if (open.file != nullptr)
        (void)std::fclose(std::exchange(open.file, nullptr)); // only read from
    release(open.text);
}

// Byte by byte, into a text that grows as it must. 0, or the errno.
int read_bytes(FILE *file, Text &text)
{
    for (int byte = getc_unlocked(file); byte != EOF; byte = getc_unlocked(file)) {
        const char c = static_cast<char>(byte);
        if (text.length + 1 >= text.size)
            pfm_test_raise(nullptr);
        if (!append(text, {&c, 1}))
            return errno;
    }
    return std::ferror(file) != 0 ? errno : 0;
}

} // namespace

bool append(Text &text, std::string_view more)
{
    const std::size_t needed = text.length + more.size() + 1;
    if (needed > text.size && !grow(text, needed))
        return false;
    std::copy(more.begin(), more.end(), text.bytes + text.length); // nothing may have no address
    text.length += more.size();
    text.bytes[text.length] = '\0';
    return true;
}

void clear(Text &text)
{
    text.length = 0;
    if (text.bytes != nullptr)
        text.bytes[0] = '\0';
}

void release(Text &text)
{
    wipe_and_free(std::exchange(text.bytes, nullptr), text.size);
    text = {};
}

void release(Scratch &scratch)
{
    release(scratch.line);
    release(scratch.block);
}

Read read_line(FILE *in, Text &out_line)
{
    clear(out_line);
    LineReader reader{in, out_line};
    const Piece last = reader.read();
    if (last == Piece::end)
        forget_end(in);
    if (reader.error != 0) {
        report_error(reader.error);
        return Read::failed;
    }
    if (reader.skipped != 0) {
        report_overflow();
        return Read::failed;
    }
    return last == Piece::end && out_line.length == 0 ? Read::end : Read::line;
}

int get_input(FILE *in, const char *dflt, bool multi_line, Scratch &scratch, char **out_answer)
{
    return multi_line ? get_block(in, dflt, scratch, out_answer) : get_line(in, dflt, scratch, out_answer);
}

bool read_file(const char *path, Text &out_text)
{
    OpenFile open;
    int error = 0;
    run_and_release(open, [&](OpenFile &held) {
        held.file = std::fopen(path, "re");
        error = held.file == nullptr ? errno : read_bytes(held.file, held.text);
        if (error == 0 && held.text.view().find('\0') != std::string_view::npos)
            error = EILSEQ;
        if (error == 0)
            out_text = std::exchange(held.text, {});
    });
    errno = error == 0 ? errno : error;
    return error == 0;
}

} // namespace ks::prompt

extern "C" {

int imsg_get_input(FILE *in, const char *dflt, int multi_line, char **out_answer)
{
    ks::prompt::here.require(in != nullptr && out_answer != nullptr, "in != NULL && answer != NULL");
    ks::prompt::Scratch scratch;
    int result = IMSG_PROMPT_CANCELLED;
    ks::prompt::run_and_release(scratch, [&](ks::prompt::Scratch &held) {
        result = ks::prompt::get_input(in, dflt, multi_line != 0, held, out_answer);
    });
    return result;
}

char *imsg_read_outfile(const char *path)
{
    ks::prompt::Text text;
    char *copy = nullptr;
    ks::prompt::run_and_release(text, [&](ks::prompt::Text &held) {
        if (ks::prompt::read_file(path, held))
            copy = ks::prompt::copy_of(held.view());
    });
    return copy;
}
}
