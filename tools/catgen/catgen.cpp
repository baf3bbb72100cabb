// Prints the gencat source of a message catalogue: its tables, from the rows that the library or the tool
// itself is built from, so that default texts and catalogue cannot drift apart.
//
// Usage: catgen > ks_lib.msg; gencat ks_lib.cat ks_lib.msg
#include "catgen.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr bool is_octal_digit(char byte)
{
    return byte >= '0' && byte <= '7';
}

// One byte of a text, as gencat reads it back inside quotes; true when it was written in octal. How
// many digits gencat takes is not the same everywhere, so a digit that follows an octal byte must be
// written in octal itself.
bool print_escaped(char byte, bool follows_octal)
{
    constexpr const char *with_letter = "\n\t\v\b\r\f";
    constexpr const char *letters = "ntvbrf";
    const char *found = std::strchr(with_letter, byte);
    const bool is_octal = found == nullptr && (byte < 0x20 || byte > 0x7e || (follows_octal && is_octal_digit(byte)));
    if (is_octal)
        std::printf("\\%03o", static_cast<unsigned>(static_cast<unsigned char>(byte)));
    else if (found != nullptr)
        std::printf("\\%c", letters[found - with_letter]);
    else if (byte == '"' || byte == '\\')
        std::printf("\\%c", byte);
    else
        std::putchar(byte);
    return is_octal;
}

void print_message(unsigned catalog_number, const char *text)
{
    std::printf("%u \"", catalog_number);
    bool is_octal = false;
    for (; *text != '\0'; ++text)
        is_octal = print_escaped(*text, is_octal);
    std::printf("\"\n");
}

void print_table(const msg_table &table)
{
    std::printf("\n$ %s\n$set %u\n$quote \"\n", table.subsystem, table.set);
    for (unsigned i = 0; i < table.count; ++i)
        print_message(table.catalog_numbers[i], table.default_texts[i]);
}

// A catalogue holds each set once, and gencat wants them in rising order.
bool are_sets_rising()
{
    unsigned previous = 0;
    for (const msg_table *table : catalogue_tables) {
        if (table->set <= previous) {
            std::fprintf(stderr, "catgen: set %u of \"%s\" does not follow set %u\n", table->set, table->subsystem,
                         previous);
            return false;
        }
        previous = table->set;
    }
    return true;
}

} // namespace

int main()
{
    if (!are_sets_rising())
        return EXIT_FAILURE;
    std::printf("$ Messages of the library. To translate: keep numbers and printf directives, translate\n"
                "$ the texts, and compile with gencat.\n");
    for (const msg_table *table : catalogue_tables)
        print_table(*table);
    return std::fflush(stdout) == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
