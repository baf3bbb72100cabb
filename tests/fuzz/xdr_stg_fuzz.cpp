// Storage streams: writes, positions and places against a string that grows by the rule.
#include "fuzz/fuzz_support.h"
#include "rpc/wire/connection.h"

namespace {

struct Model {
    std::string written{};
    std::size_t at = 0;
    std::size_t total = 0;

    bool go(std::size_t place) { return place <= total && (at = place, true); }
    bool take(std::size_t count) { return at % 4 == 0 && count <= total - at && (at += count, true); }
    void put(const std::string &bytes)
    {
        if (total - at < bytes.size())
            total += std::max(std::min<std::size_t>(total, 4096), bytes.size() - (total - at));
        written.resize(std::max(written.size(), at + bytes.size()));
        written.replace(at, bytes.size(), bytes);
        at += bytes.size();
    }
};

} // namespace

FUZZ_TARGET(input)
{
    Model model{.total = input.take_byte() * 40u};
    test::Stream stream(static_cast<u_int>(model.total), XDR_ENCODE);
    while (input.left() > 0) {
        const auto kind = input.take_byte();
        const std::size_t number = input.take_byte() * (kind / 4u);
        const std::string bytes = kind % 2 != 0 ? test::wire_word(kind) : std::string(number, static_cast<char>(kind));
        if (kind % 4 == 0)
            FUZZ_REQUIRE((XDR_SETPOS(&stream, static_cast<u_int>(number)) != FALSE) == model.go(number));
        else if (kind % 4 == 1)
            FUZZ_REQUIRE((XDR_INLINE(&stream, static_cast<u_int>(number)) != nullptr) == model.take(number));
        else {
            FUZZ_REQUIRE(kind % 2 != 0 ? stream.put(kind) : stream.put(bytes));
            model.put(bytes);
        }
        FUZZ_REQUIRE(XDR_GETPOS(&stream) == model.at && stream.x_handy == model.total - model.at);
        if (model.at > model.written.size()) // room that was passed over
            std::memset(stream.x_base + model.written.size(), 0, model.at - model.written.size());
        model.written.resize(std::max(model.written.size(), model.at));
    }
    std::string read(model.written.size(), '#');
    stream.x_op = XDR_DECODE;
    FUZZ_REQUIRE(XDR_SETPOS(&stream, 0) && stream.get(read) && read == model.written);
    read.assign(model.total - read.size() + 1, '#');
    FUZZ_REQUIRE(!stream.get(read));
}
