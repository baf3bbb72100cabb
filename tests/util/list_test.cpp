// Lists: what is on them, their attribute bytes, and what misuse does.
#include "harness/misuse.h"

#include <korvaks/list.h>

#include <cstring>

namespace {

int values[8];

std::vector<void *> content(const list_record *list)
{
    std::vector<void *> found;
    void *data = nullptr;
    for (list_element *e = list_next(list, nullptr, &data); e != nullptr; e = list_next(list, e, &data))
        found.push_back(data);
    EXPECT_EQ(data, nullptr);
    EXPECT_EQ(found.size(), list_length(list));
    return found;
}

// The last element as the list says and as a walk finds it.
void expect_end(const list_record *list, const list_element *expected)
{
    void *data = &values[7];
    EXPECT_EQ(list_final(list, &data), expected);
    EXPECT_EQ(data, expected == nullptr ? nullptr : expected->data);
    EXPECT_EQ(list_is_empty(list), expected == nullptr);
    EXPECT_TRUE(expected == nullptr || expected->next == nullptr);
}

// Runs the same steps on a heap list and on one in an area.
template <typename Steps> void on_both_kinds(Steps steps)
{
    for (stg_area *area : {STG_AREA_HEAP, stg_create_area(1000)}) {
        list_record *list = list_create(area, 4);
        steps(list);
        const std::vector<void *> before = content(list);
        list_destroy(list);
        if (area == STG_AREA_HEAP)
            continue;
        EXPECT_EQ(content(list), before); // it is left to its area
        stg_delete_area(&area);
    }
}

TEST(List, InsertsAndRemovesAtEveryPlace)
{
    on_both_kinds([](list_record *list) {
        expect_end(list, nullptr);
        list_element *b = list_append(list, &values[1]);
        list_element *a = list_insert(list, nullptr, &values[0]);
        list_element *d = list_insert(list, b, &values[3]);
        list_element *c = list_insert(list, b, &values[2]);
        EXPECT_EQ(content(list), (std::vector<void *>{&values[0], &values[1], &values[2], &values[3]}));
        expect_end(list, d);
        list_remove(list, b);
        expect_end(list, d);
        list_remove(list, d);
        expect_end(list, c);
        list_remove(list, a);
        EXPECT_EQ(content(list), std::vector<void *>{&values[2]});
        list_remove(list, c);
        expect_end(list, nullptr);
        expect_end(list, list_append(list, &values[5]));
    });
}

TEST(List, KeepsAttributesAndData)
{
    on_both_kinds([](list_record *list) {
        list_element *e = list_append(list, &values[0]);
        list_element *other = list_append(list, &values[1]);
        list_set_attrs(list, e, 4, "abcd");
        list_set_attrs(list, other, 4, "wxyz");
        list_set_attrs(list, e, 2, "AB");
        uint64_t nbytes = 0;
        EXPECT_EQ(std::memcmp(list_get_attrs(list, e, &nbytes), "ABcd", 4), 0);
        EXPECT_EQ(nbytes, 4u);
        EXPECT_EQ(std::memcmp(list_get_attrs(list, other, nullptr), "wxyz", 4), 0);
        list_set_data(list, e, &values[6]);
        EXPECT_EQ(list_get_data(list, e), &values[6]);
    });
}

TEST(List, ConcatCopiesTheSmallerNumberOfAttributes)
{
    on_both_kinds([](list_record *list) {
        for (const uint64_t attr_bytes : {2u, 9u}) {
            SCOPED_TRACE(attr_bytes);
            list_record *src = list_create(STG_AREA_HEAP, attr_bytes);
            list_set_attrs(src, list_append(src, &values[2]), attr_bytes, "123456789");
            list_element *before = list_append(list, &values[0]);
            list_concat(list, src);
            list_concat(src, src); // each once
            EXPECT_EQ(content(src), (std::vector<void *>{&values[2], &values[2]}));
            void *data = nullptr;
            list_element *copy = list_next(list, before, &data);
            EXPECT_EQ(data, &values[2]);
            EXPECT_EQ(std::memcmp(list_get_attrs(list, copy, nullptr), "1234", std::min<std::size_t>(attr_bytes, 4)),
                      0);
            list_destroy(src);
        }
    });
}

TEST(List, MisuseEndsTheProcessAndNullIsAnEmptyList)
{
    list_record *list = list_create(STG_AREA_HEAP, 4);
    list_element *e = list_append(list, nullptr);
    list_record *other = list_create(STG_AREA_HEAP, UINT64_MAX - 7); // no memory can hold an element
    test::expect_misuse({{[&] { list_set_attrs(list, e, 5, "12345"); },
                          "Attempt to store 5 attribute bytes in list providing 4 bytes."},
                         {[&] { (void)list_append(other, nullptr); }, "Unable to allocate storage"},
                         {[&] { list_remove(other, e); }, "PFM_ASSERT:(elem != NULL) failed: 'lib/ks/list':"},
                         {[&] { (void)list_append(nullptr, nullptr); }, "(list != NULL) failed: 'lib/ks/list':"}});
    list_destroy(list);
    list_destroy(other);
    list_destroy(nullptr);
    EXPECT_TRUE(list_length(nullptr) == 0 && list_is_empty(nullptr) == 1);
}

} // namespace
