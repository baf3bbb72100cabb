// Texts of catalogues that nobody checked: one that is let through takes the arguments of the default
// text, as the system's own formatter sees them, and formats with them without harm.
#include "fuzz/fuzz_support.h"

#include "messages/imsg_impl.h"

#include <algorithm>
#include <cstdarg>
#include <iterator>

#include <printf.h>

namespace {

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

struct Formatted {
    std::string text;
    std::size_t size;
    char *buffer;
};

int format(const Formatted *to, ...)
{
    va_list args;
    va_start(args, to);
    const int length = imsg_vsnprintf(to->buffer, to->size, to->text.c_str(), IMSG_RAW_FORMAT, args);
    va_end(args);
    return length;
}

// Enough arguments that some are passed in memory, where one of another size would shift the rest.
struct Default {
    const char *text;
    int (*format_with_arguments)(const Formatted *to);
};
constexpr Default defaults[] = {
    {"%s: %d of %ld\n", [](const Formatted *to) { return format(to, "file", 3, 4L); }},
    {"%d %u %s %lu %lld %s %c %p %e %s\n",
     [](const Formatted *to) { return format(to, -1, 2U, "three", 4UL, 5LL, "six", 'c', nullptr, 8.5, "ten"); }},
    {"%f %g %e %f %g %e %f %g %e %f %s %d\n",
     [](const Formatted *to) { return format(to, 1.0, 2.0, 3.0, 4.0, 5.0, 6.0, 7.0, 8.0, 9.0, 10.0, "eleven", 12); }},
    {"%*d <%.*s> %-*.*f %s\n", [](const Formatted *to) { return format(to, 5, 6, 2, "text", 9, 3, 2.5, "end"); }},
    {"%llu %x %o %lx %i %s 100%%\n", [](const Formatted *to) { return format(to, 1ULL, 2U, 3U, 4UL, 5, "six"); }},
    {"nothing\n", [](const Formatted *to) { return format(to); }},
};

} // namespace

FUZZ_TARGET(input)
{
    const Default &from = defaults[input.take_byte() % std::size(defaults)];
    const std::size_t size = 1 + input.take_byte();
    const std::string text = input.take_text();
    FUZZ_REQUIRE(ks::imsg::has_same_directives(from.text, from.text));
    if (!ks::imsg::has_same_directives(text.c_str(), from.text))
        return;
    FUZZ_REQUIRE(argument_types(text.c_str()) == argument_types(from.text));
    if (fuzz::has_long_number(text))
        return;
    const auto buffer = fuzz::exact_room(size, 'x');
    const Formatted to{text, size, buffer.get()};
    const int length = from.format_with_arguments(&to);
    FUZZ_REQUIRE(length >= 0);
    FUZZ_REQUIRE(buffer[std::min(static_cast<std::size_t>(length), size - 1)] == '\0');
}
