// Lists: what is on them, their attribute bytes, what misuse does, and a raise in the middle.
#include <korvaks/list.h>
#include <korvaks/pfm.h>

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "harness/child.h"

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
    const list_element *final = list_final(list, &data);
    EXPECT_EQ(final, expected);
    EXPECT_EQ(data, expected == nullptr ? nullptr : expected->data);
    EXPECT_EQ(list->last, expected);
    EXPECT_EQ(list_is_empty(list), expected == nullptr);
    if (expected != nullptr) {
        EXPECT_EQ(expected->next, nullptr);
    }
}

// Runs the same steps on a heap list and on one in an area.
class ListKinds : public testing::TestWithParam<bool> {
  protected:
    void SetUp() override
    {
        area_ = GetParam() ? STG_AREA_HEAP : stg_create_area(1000);
        list_ = list_create(area_, 4);
    }
    void TearDown() override
    {
        list_destroy(list_);
        if (area_ != STG_AREA_HEAP)
            stg_delete_area(&area_);
    }

    stg_area *area_ = STG_AREA_NULL;
    list_record *list_ = nullptr;
};

TEST_P(ListKinds, InsertsAndRemovesAtEveryPlace)
{
    expect_end(list_, nullptr);
    list_element *b = list_append(list_, &values[1]);
    list_element *a = list_insert(list_, nullptr, &values[0]);
    list_element *d = list_insert(list_, b, &values[3]);
    list_element *c = list_insert(list_, b, &values[2]);
    EXPECT_EQ(content(list_), (std::vector<void *>{&values[0], &values[1], &values[2], &values[3]}));
    expect_end(list_, d);
    list_remove(list_, b);
    expect_end(list_, d);
    list_remove(list_, d);
    expect_end(list_, c);
    list_remove(list_, a);
    EXPECT_EQ(content(list_), std::vector<void *>{&values[2]});
    list_remove(list_, c);
    expect_end(list_, nullptr);
    expect_end(list_, nullptr);
    EXPECT_EQ(content(list_), std::vector<void *>{});
    list_element *again = list_append(list_, &values[5]);
    expect_end(list_, again);
}

TEST_P(ListKinds, KeepsAttributesAndData)
{
    list_element *e = list_append(list_, &values[0]);
    list_element *other = list_append(list_, &values[1]);
    list_set_attrs(list_, e, 4, "abcd");
    list_set_attrs(list_, other, 4, "wxyz");
    list_set_attrs(list_, e, 2, "AB");
    list_set_attrs(list_, e, 0, nullptr);
    uint64_t nbytes = 0;
    EXPECT_EQ(std::memcmp(list_get_attrs(list_, e, &nbytes), "ABcd", 4), 0);
    EXPECT_EQ(nbytes, 4u);
    EXPECT_EQ(std::memcmp(list_get_attrs(list_, other, nullptr), "wxyz", 4), 0);
    list_set_data(list_, e, &values[6]);
    EXPECT_EQ(list_get_data(list_, e), &values[6]);
    EXPECT_EQ(list_get_data(list_, other), &values[1]);
}

TEST_P(ListKinds, ConcatCopiesTheSmallerNumberOfAttributes)
{
    for (const uint64_t attr_bytes : {0u, 2u, 9u}) {
        SCOPED_TRACE(attr_bytes);
        list_record *src = list_create(STG_AREA_HEAP, attr_bytes);
        list_element *original = list_append(src, &values[2]);
        list_set_attrs(src, original, attr_bytes, "123456789");
        (void)list_append(src, &values[3]);
        list_element *before = list_append(list_, &values[0]);
        list_concat(list_, src);
        EXPECT_EQ(content(src), (std::vector<void *>{&values[2], &values[3]}));
        void *data = nullptr;
        list_element *copy = list_next(list_, before, &data);
        EXPECT_NE(copy, original);
        EXPECT_EQ(data, &values[2]);
        EXPECT_EQ(std::memcmp(list_get_attrs(list_, copy, nullptr), "1234", std::min<size_t>(attr_bytes, 4)), 0);
        EXPECT_EQ(list_get_data(list_, list_final(list_, nullptr)), &values[3]);
        list_destroy(src);
    }
}

TEST_P(ListKinds, ConcatWithItselfDoublesItOnce)
{
    list_concat(list_, list_);
    EXPECT_EQ(list_length(list_), 0u);
    (void)list_append(list_, &values[0]);
    (void)list_append(list_, &values[1]);
    list_concat(list_, list_);
    EXPECT_EQ(content(list_), (std::vector<void *>{&values[0], &values[1], &values[0], &values[1]}));
}

INSTANTIATE_TEST_SUITE_P(Storage, ListKinds, testing::Bool(),
                         [](const auto &kind) { return kind.param ? "Heap" : "Area"; });

TEST(List, NullIsAnEmptyList)
{
    EXPECT_EQ(list_length(nullptr), 0u);
    EXPECT_EQ(list_is_empty(nullptr), 1);
    list_destroy(nullptr);
}

TEST(List, AreaListIsLeftToItsArea)
{
    stg_area *area = stg_create_area(1000);
    list_record *list = list_create(area, 0);
    (void)list_append(list, &values[0]);
    list_destroy(list);
    EXPECT_EQ(content(list), std::vector<void *>{&values[0]});
    stg_delete_area(&area);
}

struct Misuse {
    const char *name;
    void (*act)(list_record *list, list_element *element);
    const char *first_text;
    const char *panic_text;
};

TEST(List, MisuseEndsTheProcessWithItsMessage)
{
    const Misuse cases[] = {
        {"too many attributes", [](list_record *list, list_element *e) { list_set_attrs(list, e, 5, "12345"); },
         "Attempt to store 5 attribute bytes in list providing 4 bytes.", "***ABORT***  'lib/ks/list':"},
        {"element of another list",
         [](list_record *list, list_element *) {
             list_record *other = list_create(STG_AREA_HEAP, 0);
             list_remove(list, list_append(other, nullptr));
         },
         "PFM_ASSERT:(elem != NULL) failed: 'lib/ks/list':", ""},
        {"no element", [](list_record *list, list_element *) { list_remove(list, nullptr); },
         "PFM_ASSERT:(elem != NULL) failed: 'lib/ks/list':", ""},
        {"no list", [](list_record *, list_element *) { (void)list_append(nullptr, nullptr); },
         "PFM_ASSERT:(list != NULL) failed: 'lib/ks/list':", ""},
        {"elements that no memory can hold",
         [](list_record *, list_element *) { (void)list_append(list_create(STG_AREA_HEAP, UINT64_MAX - 7), nullptr); },
         "Unable to allocate storage", "***ABORT***  'lib/ks/list':"},
    };
    for (const Misuse &misuse : cases) {
        SCOPED_TRACE(misuse.name);
        const test::ChildResult result = test::run_child([&] {
            list_record *list = list_create(STG_AREA_HEAP, 4);
            misuse.act(list, list_append(list, nullptr));
            return 0;
        });
        EXPECT_EQ(result.signal, SIGABRT);
        EXPECT_NE(result.err.find(misuse.first_text), std::string::npos) << result.err;
        EXPECT_NE(result.err.find(misuse.panic_text), std::string::npos) << result.err;
    }
}

// Asks for a raise, so that it waits for the next delivery check, and catches it around `act`.
template <typename Act> int raise_into(Act act)
{
    pfm_cleanup_rec rec{};
    rec.status = sigsetjmp(rec.jump, 1);
    const int32_t status = pfm_cleanup_start(&rec, 0);
    if (status != 0) {
        pfm_cleanup_reset(&rec);
        pfm_cleanup_rls(&rec);
        return status;
    }
    pfm_notify_vl_thread(PFM_RAISE_INTERRUPT);
    act();
    pfm_cleanup_rls(&rec);
    return 0;
}

TEST(List, RaiseLeavesTheListWhole)
{
    const test::ChildResult result = test::run_child([] {
        pfm_init();
        list_record *list = list_create(STG_AREA_HEAP, 0);
        list_element *e = list_append(list, &values[0]);
        bool is_good = raise_into([&] { (void)list_append(list, &values[1]); }) == PFM_RAISE_INTERRUPT;
        is_good = is_good && list_length(list) == 1 && list->last == e;
        is_good = is_good && raise_into([&] { list_remove(list, e); }) == PFM_RAISE_INTERRUPT;
        is_good = is_good && list_length(list) == 1 && list->last == e;
        // What is inhibited by the caller goes through, and the raise comes behind it.
        is_good = is_good && raise_into([&] {
                                 pfm_inhibit();
                                 pfm_notify_vl_thread(PFM_RAISE_INTERRUPT);
                                 list_remove(list, e);
                                 (void)list_append(list, &values[2]);
                                 pfm_enable();
                             }) == PFM_RAISE_INTERRUPT;
        list_destroy(list);
        return is_good ? 0 : 1;
    });
    EXPECT_EQ(result.exit_status, 0) << result.err;
}

} // namespace
