// Formatting of messages: into a caller's buffer, and in the form that a test program takes apart.
#include "messages/imsg_impl.h"

#include <korvaks/stg.h>
#include <korvaks/strutl.h>
#include <korvaks/tls_impl.h>

#include <climits>
#include <cstring>

namespace ks::imsg {

namespace {

// Builds a text in a buffer in the manner of snprintf(): what does not fit is counted.
class Builder {
  public:
    Builder(char *buffer, std::size_t size) : buffer_(buffer), size_(size)
    {
        if (size_ > 0)
            *buffer_ = '\0';
    }

    void add(std::string_view text)
    {
        if (length_ < size_) {
            const std::size_t room = size_ - length_ - 1;
            const std::size_t taken = text.size() < room ? text.size() : room;
            std::memcpy(buffer_ + length_, text.data(), taken);
            buffer_[length_ + taken] = '\0';
        }
        length_ += text.size();
    }

    template <typename... Args> void add_formatted(const char *format, Args... args)
    {
        const bool has_room = length_ < size_;
        const int length =
            strutl_snprintf(has_room ? buffer_ + length_ : nullptr, has_room ? size_ - length_ : 0, format, args...);
        if (length < 0)
            is_failed_ = true;
        else
            length_ += static_cast<std::size_t>(length);
    }

    int result() const { return is_failed_ || length_ > INT_MAX ? -1 : static_cast<int>(length_); }

  private:
    char *buffer_;
    std::size_t size_;
    std::size_t length_ = 0;
    bool is_failed_ = false;
};

// The raw format with its white-space characters visible.
void add_escaped(Builder &out, const char *text)
{
    constexpr std::string_view controls = "\f\n\r\t\v";
    constexpr const char *escapes[] = {"\\f", "\\n", "\\r", "\\t", "\\v"};
    for (std::string_view rest{text}; !rest.empty();) {
        const std::size_t plain = rest.find_first_of(controls);
        out.add(rest.substr(0, plain));
        if (plain == rest.npos)
            return;
        out.add(escapes[controls.find(rest[plain])]);
        rest.remove_prefix(plain + 1);
    }
}

// One directive of a format, with its text.
struct Directive {
    char text[256];
    strutl_printf_kind kind;
    int star_width;
    int star_precision;
};

// Where the arguments of a message are; a struct, so that it can be passed by reference.
struct Arguments {
    va_list list;
};

template <typename Value> void add_value(Builder &out, const Directive &directive, Arguments &arguments)
{
    // Width and precision come before the value.
    const int first = directive.star_width != 0 || directive.star_precision != 0 ? va_arg(arguments.list, int) : 0;
    const bool has_both = directive.star_width != 0 && directive.star_precision != 0;
    const int second = has_both ? va_arg(arguments.list, int) : 0;
    const Value value = va_arg(arguments.list, Value);
    if constexpr (std::is_same_v<Value, const char *>) {
        if (value == nullptr) {
            out.add("<<<NULL STRING>>>");
            return;
        }
    }
    if (has_both)
        out.add_formatted(directive.text, first, second, value);
    else if (directive.star_width != 0 || directive.star_precision != 0)
        out.add_formatted(directive.text, first, value);
    else
        out.add_formatted(directive.text, value);
}

void add_argument(Builder &out, const Directive &directive, Arguments &arguments)
{
    switch (directive.kind) {
    case strutl_printf_kind_pointer:
        return add_value<void *>(out, directive, arguments);
    case strutl_printf_kind_string:
        return add_value<const char *>(out, directive, arguments);
    case strutl_printf_kind_double:
        return add_value<double>(out, directive, arguments);
    case strutl_printf_kind_int:
        return add_value<int>(out, directive, arguments);
    case strutl_printf_kind_unsigned_int:
        return add_value<unsigned>(out, directive, arguments);
    case strutl_printf_kind_long:
        return add_value<long>(out, directive, arguments);
    case strutl_printf_kind_unsigned_long:
        return add_value<unsigned long>(out, directive, arguments);
    case strutl_printf_kind_long_long:
        return add_value<long long>(out, directive, arguments);
    case strutl_printf_kind_unsigned_long_long:
        return add_value<unsigned long long>(out, directive, arguments);
    default:
        here.require(false, "kind > strutl_printf_kind_null && kind < strutl_printf_kind_end_marker");
    }
}

// Every argument by its own directive. A directive that cannot be read ends the list: what its
// argument is, and so where the next one lies, is not known.
void add_values(Builder &out, const char *format, Arguments &arguments)
{
    Directive directive;
    std::size_t at = 0;
    bool is_first = true;
    while (strutl_find_printf_directive(format, at, sizeof directive.text, directive.text, &at, &directive.kind,
                                        &directive.star_width, &directive.star_precision) != 0) {
        if (directive.kind == strutl_printf_kind_percent)
            continue;
        if (std::strlen(directive.text) == sizeof directive.text - 1)
            return; // cut
        if (!is_first)
            out.add("!!");
        is_first = false;
        add_argument(out, directive, arguments);
    }
}

// The ATE form: identity, raw format and arguments of a message.
int format_ate(const Message &message, const char *format, char *buffer, std::size_t size, va_list args)
{
    const bool is_raw = message.table == nullptr;
    const char *subsystem_name = is_raw ? "no subsys" : message.table->subsystem;
    const int number = is_raw ? IMSG_RAW_FORMAT : static_cast<int>(message.number);
    const int catalog_number =
        is_raw || message.table->catalog_numbers == nullptr ? number : message.table->catalog_numbers[message.number];
    Builder out(buffer, size);
    out.add_formatted("\n%s%s%s%d%s%d%s", "TAG_ID:", subsystem_name == nullptr ? "" : subsystem_name, "!!", number,
                      "!!", catalog_number, ":END_ID\n");
    out.add("TAG_RAW:");
    add_escaped(out, format);
    out.add(":END_RAW\n");
    out.add("TAG_VALUES:");
    Arguments arguments;
    va_copy(arguments.list, args);
    add_values(out, format, arguments);
    va_end(arguments.list);
    out.add(":END_VALUES\n");
    return out.result();
}

void report_bad_number(const char *where, const void *table, unsigned number)
{
    (void)imsg_print(IMSG_ERROR, &_imsg_ks_msg_table, imsg_msg_bad_number, where, reinterpret_cast<long>(table),
                     static_cast<int>(number));
}

// Finds and formats a message; -1 after an internal error. `size` 0: no bound.
int format_unprinted(Tags tags, char *buffer, std::size_t size, const void *table_or_format, int msg_no, va_list args)
{
    start();
    Message message;
    if (!resolve(message, table_or_format, static_cast<unsigned>(msg_no), "vsprintf"))
        return -1;
    return format_text(message, text_of(message), tags, buffer, size == 0 ? INT_MAX : size, args);
}

Tags tags_of_mode(int tag_mode)
{
    return {true, tag_mode == 2 || tag_mode == 3, tag_mode == 3};
}

// The size to try after one that did not do; 0 when there is none.
long next_size(long size, int result, long start_size, long max_size)
{
    if (result > size)
        return static_cast<long>(result) + 1;
    const auto span = static_cast<float>(max_size - start_size);
    const long step = static_cast<long>(span / 5.0F);
    return step == 0 || step > max_size - size ? 0 : size + step;
}

int format_growing(char **out, long start_size, long max_size, const Message &message, const char *text, va_list args)
{
    Tags tags = tags_of_a_print;
    for (long size = start_size; size > 0 && size <= max_size;) {
        auto *buffer = static_cast<char *>(stg_malloc_int(static_cast<std::size_t>(size), 1));
        if (buffer == nullptr) {
            explain("ERROR in imsg_dynamic_len_vsnprintf(): cannot allocate a string of size %d\n",
                    static_cast<int>(size));
            return -1;
        }
        va_list pass;
        va_copy(pass, args);
        const int result = format_text(message, text, tags, buffer, static_cast<std::size_t>(size), pass);
        va_end(pass);
        tags.captured = false; // noted already
        if (result >= 0 && result <= size) {
            *out = buffer;
            return result;
        }
        stg_free_int(buffer, 1);
        size = next_size(size, result, start_size, max_size);
    }
    explain("Error, max buffer size %d passed to imsg_dynamic_len_vsnprintf() is not sufficient to hold the string.\n",
            static_cast<int>(max_size));
    return -1;
}

int format_dynamic(char **out, long start_size, long max_size, const void *table_or_format, unsigned msg_no,
                   va_list args)
{
    start();
    *out = nullptr;
    if (start_size < 1 || start_size > max_size) {
        explain("ERROR im imsg_dynamic_len_vsnprintf(): passed max_size argument is greater than passed start_size "
                "argument, or start_size argument is less or equal to 0.\nmax_size = %d,\tstart_size = %d\n",
                static_cast<int>(max_size), static_cast<int>(start_size));
        return -1;
    }
    Message message;
    if (!resolve(message, table_or_format, msg_no, "vsprintf"))
        return -1;
    return format_growing(out, start_size, max_size, message, text_of(message), args);
}

} // namespace

bool is_module_traced()
{
    return is_traced(subsystem, 1);
}

void explain(const char *format, ...)
{
    if (!is_module_traced())
        return;
    va_list args;
    va_start(args, format);
    (void)std::vfprintf(stderr, format, args);
    va_end(args);
}

bool resolve(Message &out_message, const void *table_or_format, unsigned number, const char *where)
{
    if (number == IMSG_RAW) {
        out_message.raw_format = static_cast<const char *>(table_or_format);
        out_message.subsystem = "";
        if (table_or_format == nullptr)
            (void)imsg_print(IMSG_ERROR, &_imsg_ks_msg_table, imsg_msg_null_message, "vsprintf/NOMSG");
        return table_or_format != nullptr;
    }
    const auto *table = static_cast<const msg_table *>(table_or_format);
    if (table == nullptr || number >= table->count) {
        report_bad_number(where, table, number);
        return false;
    }
    out_message.table = table;
    out_message.number = number;
    if (out_message.subsystem == nullptr)
        out_message.subsystem = table->subsystem == nullptr ? "" : table->subsystem;
    return true;
}

int format_text(const Message &message, const char *text, Tags tags, char *buffer, std::size_t size, va_list args)
{
    if (tags.tagged && (tags.enabled || ate_enabled.load(std::memory_order_relaxed)))
        return format_ate(message, text, buffer, size, args);
    if (tags.captured && message.table != nullptr)
        note_in_capture_log(*message.table, message.number);
    return strutl_vsnprintf(buffer, size, text, args);
}

} // namespace ks::imsg

extern "C" {

int imsg_vsnprintf(char *buf, size_t size, const void *table_or_format, int msg_no, va_list args)
{
    return ks::imsg::format_unprinted({}, buf, size, table_or_format, msg_no, args);
}

int imsg_snprintf(char *buf, size_t size, const void *table_or_format, int msg_no, ...)
{
    va_list args;
    va_start(args, msg_no);
    const int length = imsg_vsnprintf(buf, size, table_or_format, msg_no, args);
    va_end(args);
    return length;
}

int imsg_vsprintf(char *buf, const void *table_or_format, int msg_no, va_list args)
{
    return imsg_vsnprintf(buf, 0, table_or_format, msg_no, args);
}

int imsg_sprintf(char *buf, const void *table_or_format, int msg_no, ...)
{
    va_list args;
    va_start(args, msg_no);
    const int length = imsg_vsnprintf(buf, 0, table_or_format, msg_no, args);
    va_end(args);
    return length;
}

int imsg_vsnprintf_taggable(int tag_mode, char *buf, size_t size, const void *table_or_format, int msg_no, va_list args)
{
    return ks::imsg::format_unprinted(ks::imsg::tags_of_mode(tag_mode), buf, size, table_or_format, msg_no, args);
}

int imsg_snprintf_taggable(int tag_mode, char *buf, size_t size, const void *table_or_format, int msg_no, ...)
{
    va_list args;
    va_start(args, msg_no);
    const int length = imsg_vsnprintf_taggable(tag_mode, buf, size, table_or_format, msg_no, args);
    va_end(args);
    return length;
}

int imsg_snprintf_type(int kind, char *buf, size_t size, const void *table_or_format, int msg_no, ...)
{
    ks::imsg::start();
    ks::imsg::Message message(kind);
    if (!ks::imsg::resolve(message, table_or_format, static_cast<unsigned>(msg_no), "vsprintf"))
        return -1;
    const char *text = ks::imsg::text_of(message);
    const std::size_t bound = size == 0 ? INT_MAX : size;
    int head = 0;
    {
        const ks::IoLockGuard lock(ks::ks_product_crit);
        head = ks::imsg::build_head(kind, message.subsystem, buf, bound);
    }
    if (head < 0)
        return -1;
    const auto used = static_cast<std::size_t>(head);
    const bool has_room = used < bound;
    va_list args;
    va_start(args, msg_no);
    const int length =
        ks::imsg::format_text(message, text, {}, has_room ? buf + used : nullptr, has_room ? bound - used : 0, args);
    va_end(args);
    return length < 0 ? -1 : head + length;
}

int imsg_dynamic_len_snprintf(char **out, long start_size, long max_size, const void *table_or_format, unsigned msg_no,
                              ...)
{
    va_list args;
    va_start(args, msg_no);
    const int length = ks::imsg::format_dynamic(out, start_size, max_size, table_or_format, msg_no, args);
    va_end(args);
    return length;
}

const char *imsg_strerror(long errnum)
{
    const ks::ErrnoSaver saver;
    auto &text = ks_tls_get()->imsg.error_text;
    static_assert(sizeof text == IMSG_MAX_ERR_LEN);
    const int number = errnum > 0 && errnum <= INT_MAX ? static_cast<int>(errnum) : 0;
    if (number != 0 && strerrordesc_np(number) != nullptr) {
        char system_text[1024];
        (void)strutl_cpy_buf(text, strerror_r(number, system_text, sizeof system_text),
                             sizeof text); // a longer one is cut
    } else {
        (void)strutl_snprintf(text, sizeof text, "%ld", errnum); // always fits
    }
    return text;
}
}
