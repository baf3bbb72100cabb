// The two ends of a record stream, in memory: what is read comes in pieces, what is written is kept write by write.
#pragma once

#include <korvaks/xdr.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

namespace test {

struct Connection {
    std::string incoming{};
    std::size_t piece = SIZE_MAX; // a read gives so many bytes at most
    bool is_open = false;         // behind the bytes: nothing there yet, else the end of the file
    std::vector<std::string> writes{};
    std::size_t writable = SIZE_MAX; // a write takes so many bytes at most
    std::size_t at = 0;

    static int read(void *handle, void *buffer, int size)
    {
        auto &self = *static_cast<Connection *>(handle);
        const std::size_t count = std::min({self.incoming.size() - self.at, self.piece, std::size_t(size)});
        std::memcpy(buffer, self.incoming.data() + self.at, count);
        self.at += count;
        if (count > 0 || !self.is_open)
            return static_cast<int>(count);
        errno = EAGAIN;
        return -1;
    }

    static int write(void *handle, void *buffer, int size)
    {
        auto &self = *static_cast<Connection *>(handle);
        self.writes.emplace_back(static_cast<char *>(buffer), std::min<std::size_t>(self.writable, std::size_t(size)));
        return static_cast<int>(self.writes.back().size());
    }

    std::string sent() const
    {
        std::string all;
        for (const auto &text : writes)
            all += text;
        return all;
    }
};

// A stream that ends with its scope.
struct Stream : XDR {
    Stream(Connection &connection, xdr_op op, u_int sendsize = 0, u_int recvsize = 0) : XDR{}
    {
        ks_xdrrec_create(this, sendsize, recvsize, &connection, Connection::read, Connection::write);
        x_op = op;
    }
    Stream(std::string &bytes, xdr_op op) : XDR{}
    {
        xdrmem_create(this, bytes.data(), static_cast<u_int>(bytes.size()), op);
    }
    Stream(u_int size, xdr_op op) : XDR{} { (void)xdrstg_create(this, size, op); }
    Stream(const Stream &) = delete;
    Stream &operator=(const Stream &) = delete;
    ~Stream() { XDR_DESTROY(this); }

    bool put(int32_t word) { return ks_ops()->x_putint32(this, &word) != FALSE; }
    bool get(int32_t &word) { return ks_ops()->x_getint32(this, &word) != FALSE; }
    bool put(const std::string &bytes) { return XDR_PUTBYTES(this, bytes.data(), u_int(bytes.size())) != FALSE; }
    bool get(std::string &bytes) { return XDR_GETBYTES(this, bytes.data(), u_int(bytes.size())) != FALSE; }

  private:
    const ks_xdr_ops *ks_ops() const { return reinterpret_cast<const ks_xdr_ops *>(x_ops); }
};

// The bytes of an object; empty for a failure.
template <typename Routine, typename Object> std::string encode(Routine routine, Object &object)
{
    Stream stream(0, XDR_ENCODE);
    const bool is_done = routine(&stream, &object) != FALSE;
    return {stream.x_base, is_done ? XDR_GETPOS(&stream) : 0};
}

template <typename Routine, typename Object> void release(Routine routine, Object &object)
{
    xdr_free(reinterpret_cast<xdrproc_t>(routine), &object);
}

// Whether decoding takes all of the bytes, and fails on less at every place.
template <typename Routine, typename Object> bool decode(Routine routine, const std::string &bytes, Object &object)
{
    bool is_right = true;
    for (std::size_t size = 0; size < bytes.size(); ++size) {
        std::string part = bytes.substr(0, size);
        Object shorter{object};
        Stream stream(part, XDR_DECODE);
        is_right = routine(&stream, &shorter) == FALSE && is_right;
        release(routine, shorter);
    }
    std::string whole = bytes;
    Stream stream(whole, XDR_DECODE);
    return routine(&stream, &object) != FALSE && XDR_GETPOS(&stream) == bytes.size() && is_right;
}

inline std::string wire_word(uint32_t word)
{
    word = htonl(word);
    return {reinterpret_cast<char *>(&word), sizeof word};
}

// "0A ff" as bytes; blanks are left out.
inline std::string hex(const std::string &text)
{
    std::string bytes;
    for (std::size_t at = 0; (at = text.find_first_not_of(' ', at)) < text.size(); at += 2)
        bytes += static_cast<char>(std::stoi(text.substr(at, 2), nullptr, 16));
    return bytes;
}

// A fragment with its header.
inline std::string fragment(const std::string &bytes, bool is_last)
{
    std::string whole = wire_word(static_cast<uint32_t>(bytes.size()) | (is_last ? 0x80000000u : 0));
    return whole.append(bytes);
}

} // namespace test
