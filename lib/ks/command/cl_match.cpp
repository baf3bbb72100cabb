// Names that may be cut off.
#include <korvaks/cl.h>

#include <korvaks/strutl.h>

#include <climits>
#include <cstring>

namespace {

// A character in the case in which characters are compared.
struct Folded {
    explicit Folded(const char *s) : source_length(strutl_cvt_case_char(s, 0, bytes, &length)) {}

    bool operator==(const Folded &other) const
    {
        return length == other.length && std::memcmp(bytes, other.bytes, length) == 0;
    }

    char bytes[MB_LEN_MAX];
    std::size_t length = 0;
    std::size_t source_length;
};

} // namespace

extern "C" {

int cl_match(const char *word, const char *name)
{
    bool may_end = false; // a "[" was passed
    while (*word != '\0') {
        if (*name == '\0')
            return 0;
        const Folded of_word(word);
        const Folded of_name(name);
        if (of_word == of_name) {
            word += of_word.source_length;
            name += of_name.source_length;
        } else if (*name == '[') {
            may_end = true;
            ++name;
        } else {
            return 0;
        }
    }
    return may_end || *name == '[' || *name == '\0' ? 1 : 0;
}

int cl_get_subcommand(cl_handle *clh, int count, const char *const *names)
{
    const char *const word = cl_getarg(clh);
    if (word == nullptr)
        return -1;
    for (int i = 0; i < count; ++i)
        if (cl_match(word, names[i]) != 0)
            return i;
    return -1;
}
}
