// Bytes on their way to a stream, which no signal makes it lose.
//
// A stream of the C library gives up what it was writing when a signal interrupts the write, and does not tell how
// much that was. So the bytes go past the streams that messages are printed on, and past others where a write
// can be interrupted at all: on a pipe, a terminal or a socket. A stream over a file may keep a position that has
// to fit its buffer; what a caller writes to such a one goes through it.
#include "messages/imsg_impl.h"

#include <cstring>

#include <stdio_ext.h>
#include <sys/stat.h>

namespace {

bool is_of_messages(const FILE *stream)
{
    using ks::imsg::state;
    return stream == state.real_out || stream == state.real_err || stream == state.log_stream;
}

// The descriptor to write to past the stream; -1 for a stream that is to be written through.
int descriptor_below(FILE *stream)
{
    const ks::ErrnoSaver saver;
    const int fd = fileno(stream);
    if (fd < 0 || is_of_messages(stream))
        return fd;
    struct stat st;
    return fstat(fd, &st) == 0 && !S_ISREG(st.st_mode) ? fd : -1;
}

// A writer that is stuck must not hold up a thread that is asked to stop.
bool goes_on_after_interruption()
{
    return vlthread_pending_raise(nullptr) == 0;
}

// 0, or the error of the write.
int write_past_stream(int fd, std::string_view bytes)
{
    while (!bytes.empty()) {
        const ssize_t written = write(fd, bytes.data(), bytes.size());
        if (written >= 0)
            bytes.remove_prefix(static_cast<std::size_t>(written));
        else if (errno != EINTR || !goes_on_after_interruption())
            return errno;
    }
    return 0;
}

} // namespace

namespace ks::imsg {

StreamWriter::StreamWriter(FILE *stream) : stream_(stream), descriptor_(descriptor_below(stream))
{
    // What the program has printed itself comes first. A refusal is its own to find on the stream.
    if (descriptor_ >= 0 && __fpending(stream) > 0)
        (void)std::fflush(stream);
}

void StreamWriter::write(std::string_view bytes)
{
    if (error_ != 0 || bytes.empty())
        return;
    if (descriptor_ >= 0)
        error_ = write_past_stream(descriptor_, bytes);
    else if (std::fwrite(bytes.data(), 1, bytes.size(), stream_) != bytes.size())
        error_ = errno;
}

void StreamWriter::write_gathered()
{
    write({piece_, gathered_});
    gathered_ = 0;
}

void StreamWriter::add(std::string_view bytes)
{
    if (bytes.size() > sizeof piece_ - gathered_)
        write_gathered();
    if (bytes.size() > sizeof piece_) {
        write(bytes);
        return;
    }
    std::memcpy(piece_ + gathered_, bytes.data(), bytes.size());
    gathered_ += bytes.size();
}

bool StreamWriter::finish()
{
    write_gathered();
    if (descriptor_ < 0 && std::fflush(stream_) != 0 && error_ == 0)
        error_ = errno;
    if (error_ == 0)
        return true;
    errno = error_;
    return false;
}

} // namespace ks::imsg
