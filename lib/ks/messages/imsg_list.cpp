// Message lists: messages gathered into one growing text.
#include <korvaks/imsg_list.h>

#include "messages/imsg_impl.h"

#include <korvaks/stg.h>

#include <cstring>
#include <functional>
#include <type_traits>

static_assert(std::is_standard_layout_v<imsg_list> && std::is_trivially_copyable_v<imsg_list>);
static_assert(offsetof(imsg_list, one_msg_buf_size) == 0 && offsetof(imsg_list, one_msg_buf) == 8);
static_assert(offsetof(imsg_list, growth_unit) == 16 && offsetof(imsg_list, list_buf_size) == 20);
static_assert(offsetof(imsg_list, used) == 24 && offsetof(imsg_list, list_buf) == 32);
static_assert(offsetof(imsg_list, tag_mode) == 40 && sizeof(imsg_list) == 48);

namespace ks::imsg {

namespace {

constexpr std::uint32_t one_msg_buf_size_initial = 16384;
constexpr std::uint32_t growth_unit_bytes = 512;

// Tag modes, as in imsg_vsnprintf_taggable().
constexpr int mode_untagged = 1;
constexpr int mode_tagged_when_enabled = 2;
constexpr int mode_tagged = 3;

char *new_buffer(std::uint32_t size)
{
    auto *buffer = static_cast<char *>(stg_malloc(size));
    if (buffer != nullptr)
        *buffer = '\0';
    return buffer;
}

void require_list(const imsg_list *list)
{
    here.require(list != nullptr, "imsg_list_p != NULL");
    here.require(list->list_buf != nullptr, "imsg_list_p->list_buf != NULL");
}

// The decision is taken once for a message, so that it is as long each time it is formatted.
Tags tags_of_list(const imsg_list &list)
{
    const bool tagged = list.tag_mode == mode_tagged ||
                        (list.tag_mode == mode_tagged_when_enabled && ate_enabled.load(std::memory_order_relaxed));
    return {true, tagged, tagged};
}

int format_into(imsg_list &list, const Message &message, const char *text, Tags tags, va_list args)
{
    *list.one_msg_buf = '\0'; // what a failure leaves is text of this message or none
    va_list pass;
    va_copy(pass, args);
    const int result = format_text(message, text, tags, list.one_msg_buf, list.one_msg_buf_size, pass);
    va_end(pass);
    list.one_msg_buf[list.one_msg_buf_size - 1] = '\0';
    return result;
}

// Makes the one-message buffer hold a text of `length` bytes; its content is lost.
bool grow_one_msg_buf(imsg_list &list, int length)
{
    const std::uint32_t size = static_cast<std::uint32_t>(length) + 1;
    char *buffer = new_buffer(size);
    if (buffer == nullptr)
        return false;
    stg_free(list.one_msg_buf);
    list.one_msg_buf = buffer;
    list.one_msg_buf_size = size;
    return true;
}

// Formats a message, whatever its length, and appends it.
int add_message(imsg_list &list, const void *table_or_format, unsigned msg_no, va_list args)
{
    start();
    Message message;
    *list.one_msg_buf = '\0';
    int result = -1;
    if (resolve(message, table_or_format, msg_no, "vsprintf")) {
        const char *text = text_of(message);
        Tags tags = tags_of_list(list);
        result = format_into(list, message, text, tags, args);
        if (result >= 0 && static_cast<std::uint32_t>(result) >= list.one_msg_buf_size) {
            if (!grow_one_msg_buf(list, result))
                return -1;
            tags.captured = false; // noted already
            result = format_into(list, message, text, tags, args);
            here.require(result < 0 || static_cast<std::uint32_t>(result) <= list.one_msg_buf_size,
                         "result <= imsg_list_p->one_msg_buf_size");
        }
    }
    if (result < 0)
        explain("error writing message to `one_msg_buf'. (sz: %ld).\n", static_cast<long>(list.one_msg_buf_size));
    const int added = imsg_list_add_str(&list, list.one_msg_buf);
    return result < 0 ? -1 : added;
}

// Makes the list buffer hold `length` more bytes and a NUL; false when there is no memory for them.
bool make_list_room(imsg_list &list, std::size_t length)
{
    const std::size_t free_bytes = list.list_buf_size - list.used;
    if (length < free_bytes)
        return true;
    std::size_t units = (length + 1 - free_bytes) / list.growth_unit;
    if ((length + 1 - free_bytes) % list.growth_unit != 0)
        ++units;
    std::uint32_t size;
    if (__builtin_mul_overflow(units, list.growth_unit, &size) ||
        __builtin_add_overflow(size, list.list_buf_size, &size)) {
        errno = ENOMEM; // more than a list's sizes can say
        return false;
    }
    auto *buffer = static_cast<char *>(stg_realloc(list.list_buf, size));
    if (buffer == nullptr)
        return false;
    list.list_buf = buffer;
    list.list_buf_size = size;
    return true;
}

bool is_in_list(const imsg_list &list, const char *text)
{
    return !std::less<>{}(text, list.list_buf) && !std::less<>{}(list.list_buf + list.used, text);
}

} // namespace

} // namespace ks::imsg

extern "C" {

void imsg_list_create_taggable(int tag_mode, imsg_list *list, ...)
{
    ks::imsg::here.require(list != nullptr, "imsg_list_p != NULL");
    const bool is_known = tag_mode >= ks::imsg::mode_untagged && tag_mode <= ks::imsg::mode_tagged;
    *list = {};
    list->one_msg_buf_size = ks::imsg::one_msg_buf_size_initial;
    list->one_msg_buf = ks::imsg::new_buffer(list->one_msg_buf_size);
    ks::imsg::here.require(list->one_msg_buf != nullptr, "imsg_list_p->one_msg_buf != NULL");
    list->growth_unit = ks::imsg::growth_unit_bytes;
    list->list_buf_size = list->growth_unit;
    list->list_buf = ks::imsg::new_buffer(list->list_buf_size);
    ks::imsg::here.require(list->list_buf != nullptr, "imsg_list_p->list_buf != NULL");
    list->tag_mode = is_known ? tag_mode : ks::imsg::mode_tagged_when_enabled;
}

void imsg_list_create(imsg_list *list, ...)
{
    imsg_list_create_taggable(ks::imsg::mode_untagged, list);
}

int imsg_list_add_msg(imsg_list *list, const void *table_or_format, unsigned msg_no, ...)
{
    ks::imsg::require_list(list);
    va_list args;
    va_start(args, msg_no);
    const int result = ks::imsg::add_message(*list, table_or_format, msg_no, args);
    va_end(args);
    return result;
}

int imsg_list_add_str(imsg_list *list, const char *text)
{
    ks::imsg::require_list(list);
    if (text == nullptr || *text == '\0')
        return 0;
    const std::size_t length = std::strlen(text);
    // The list's own text moves with its buffer.
    const bool is_own = ks::imsg::is_in_list(*list, text);
    const std::size_t offset = is_own ? static_cast<std::size_t>(text - list->list_buf) : 0;
    if (!ks::imsg::make_list_room(*list, length))
        return -1;
    std::memcpy(list->list_buf + list->used, is_own ? list->list_buf + offset : text, length);
    list->used += static_cast<std::uint32_t>(length); // there was room in a buffer of that many bytes
    list->list_buf[list->used] = '\0';
    return 0;
}

char *imsg_list_get_buf(imsg_list *list, char **buf)
{
    ks::imsg::require_list(list);
    if (buf != nullptr)
        *buf = list->list_buf;
    return list->list_buf;
}

int imsg_list_print(imsg_list *list, int kind)
{
    ks::imsg::require_list(list);
    return imsg_print_shared(kind, nullptr, "%s", IMSG_RAW, list->list_buf);
}

int imsg_list_fprint(imsg_list *list, FILE *stream)
{
    ks::imsg::require_list(list);
    return imsg_fputs(list->list_buf, stream); // which flushes
}

void imsg_list_reset(imsg_list *list)
{
    ks::imsg::require_list(list);
    if (list->used == 0)
        return;
    list->used = 0;
    *list->list_buf = '\0';
    if (list->list_buf_size <= list->growth_unit)
        return;
    char *buffer = ks::imsg::new_buffer(list->growth_unit);
    if (buffer == nullptr)
        return; // reported; the large one does as well
    stg_free(list->list_buf);
    list->list_buf = buffer;
    list->list_buf_size = list->growth_unit;
}

void imsg_list_destroy(imsg_list *list)
{
    if (list == nullptr)
        return;
    stg_free(list->one_msg_buf);
    stg_free(list->list_buf);
    *list = {};
}
}
