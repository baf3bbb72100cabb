// Texts of catalogues that nobody checked: one that is let through takes the arguments of the default
// text, as the system's own formatter sees them, and formats with them without harm.
#include "fuzz/fuzz_support.h"

#include <korvaks/imsg.h>

#include "messages/imsg_impl.h"

#include <algorithm>
#include <cstdarg>
#include <iterator>
#include <vector>

#include <printf.h>

namespace {

// Enough arguments that some are passed in memory, where one of another size would shift the rest.
constexpr const char *defaults[] = {
    "%s: %d of %ld\n",        "%d %u %s %lu %lld %s %c %p %e %s\n", "%f %g %e %f %g %e %f %g %e %f %s %d\n",
    "%*d <%.*s> %-*.*f %s\n", "%llu %x %o %lx %i %s 100%%\n",       "nothing\n",
};

// What matters to the argument list: promotion makes these one.
std::vector<int> argument_types(const char *format)
{
    std::vector<int> types(parse_printf_format(format, 0, nullptr));
    (void)parse_printf_format(format, types.size(), types.data());
    for (int &type : types) {
        if ((type & ~PA_FLAG_MASK) == PA_CHAR || type == (PA_INT | PA_FLAG_SHORT))
            type = PA_INT;
        if (type == (PA_INT | PA_FLAG_LONG_LONG)) // as large as a long here
            type = PA_INT | PA_FLAG_LONG;
    }
    return types;
}

// A width or precision of many digits costs time and nothing else.
bool has_long_number(const std::string &text)
{
    std::size_t digits = 0;
    for (const char c : text) {
        digits = c >= '0' && c <= '9' ? digits + 1 : 0;
        if (digits > 4)
            return true;
    }
    return false;
}

int format(const std::string &text, std::size_t size, char *buffer, ...)
{
    va_list args;
    va_start(args, buffer);
    const int length = imsg_vsnprintf(buffer, size, text.c_str(), IMSG_RAW_FORMAT, args);
    va_end(args);
    return length;
}

int format_with_arguments(std::size_t which, const std::string &text, std::size_t size, char *buffer)
{
    switch (which) {
    case 0:
        return format(text, size, buffer, "file", 3, 4L);
    case 1:
        return format(text, size, buffer, -1, 2U, "three", 4UL, 5LL, "six", 'c', nullptr, 8.5, "ten");
    case 2:
        return format(text, size, buffer, 1.0, 2.0, 3.0, 4.0, 5.0, 6.0, 7.0, 8.0, 9.0, 10.0, "eleven", 12);
    case 3:
        return format(text, size, buffer, 5, 6, 2, "text", 9, 3, 2.5, "end");
    case 4:
        return format(text, size, buffer, 1ULL, 2U, 3U, 4UL, 5, "six");
    default:
        return format(text, size, buffer);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    fuzz::Input input(data, size);
    const std::size_t which = input.take_byte() % std::size(defaults);
    const std::size_t buffer_size = 1 + input.take_byte();
    const std::string text = input.take_text();
    FUZZ_REQUIRE(ks::imsg::has_same_directives(defaults[which], defaults[which]));
    if (!ks::imsg::has_same_directives(text.c_str(), defaults[which]))
        return 0;
    FUZZ_REQUIRE(argument_types(text.c_str()) == argument_types(defaults[which]));
    if (has_long_number(text))
        return 0;
    const std::unique_ptr<char[]> buffer(new char[buffer_size]);
    const int length = format_with_arguments(which, text, buffer_size, buffer.get());
    FUZZ_REQUIRE(length >= 0);
    const std::size_t written = std::min(static_cast<std::size_t>(length), buffer_size - 1);
    FUZZ_REQUIRE(buffer[written] == '\0');
    return 0;
}
