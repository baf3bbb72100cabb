// The C++ dress of the interface: what it holds on each way out.
#include <korvaks/korvaks.hpp>

#include <korvaks/imsg.h>

#include <cerrno>
#include "harness/child.h"

namespace {

enum { msg_sum, msg_failed };
constexpr korvaks::MessageTable messages("t", "t", 1, {{msg_sum, "%d in all\n"}, {msg_failed, "%s: no\n"}});

TEST(KorvaksHpp, CountsAndNumbersMessages)
{
    const msg_table *table = messages;
    EXPECT_TRUE(table->count == 2 && table->catalog_numbers[0] == 1 && table->catalog_numbers[1] == 2);
    EXPECT_EQ(test::run_child([] { imsg_print(IMSG_ERROR, messages, msg_failed, "x"); }).err, "noname: Error: x: no\n");
    EXPECT_DEATH((korvaks::MessageTable<2>("t", "t", 1, {{1, "b"}, {0, "a"}})), "");
}

// A raise that is pending when a scope begins, arrives in it, or arrives as it ends, leaves counts and records as they
// were.
TEST(KorvaksHpp, ARaiseComesToTheScopeThatHoldsTheWork)
{
    enum When { never, before, inside, at_end };
    for (const When when : {never, before, inside, at_end})
        for (const int depth : {0, 1}) {
            SCOPED_TRACE(std::to_string(when) + " " + std::to_string(depth));
            test::in_child([&] {
                pfm_init();
                int seen = 0;
                stg_area *last = STG_AREA_NULL;
                const auto ask = [&](When now) { when == now ? vlthread_notify_raise(7) : void(); };
                const int32_t outer = korvaks::protect([&] {
                    depth == 1 ? pfm_inhibit() : void();
                    ask(before);
                    EXPECT_TRUE(korvaks::with_area(100, [&](stg_area *area) {
                        last = area;
                        ++seen;
                        ask(inside);
                        pfm_test_raise(nullptr);
                        ++seen;
                        ask(at_end);
                    }));
                    ++seen;
                    depth == 1 ? pfm_enable() : void();
                });
                EXPECT_EQ(outer, when == never ? 0 : 7);
                EXPECT_EQ(seen, depth == 1 || when == never ? 3 : when == before ? 0 : when == inside ? 1 : 2);
                EXPECT_EQ(pfm_inhibit_count(), outer == 0 ? 0 : 1);
            });
        }
}

TEST(KorvaksHpp, GuardsHoldRaisesOff)
{
    test::in_child([] {
        vlthread_mutex_t mutex = VLTHREAD_MUTEX_INITIALIZER;
        vlthread_rwlock_t rwlock;
        vlthread_rwlock_init(&rwlock, VLTHREAD_RAISE_COUNTED);
        int reached = 0;
        EXPECT_EQ(korvaks::protect([&] {
                      const korvaks::Inhibit inhibit;
                      EXPECT_EQ(pfm_inhibit_count(), 1);
                      vlthread_notify_raise(9);
                      {
                          const korvaks::Lock lock(mutex);
                          EXPECT_EQ(pfm_inhibit_count(), 2);
                          const korvaks::WriteLock writer(rwlock);
                          EXPECT_EQ(vlthread_rwlock_rdlock_trylock(&rwlock), EBUSY);
                      }
                      const korvaks::ReadLock reader(rwlock);
                      ++reached;
                  }),
                  9);
        EXPECT_EQ(reached, 1);
        EXPECT_EQ(mutex.owner, 0U);
        EXPECT_EQ(vlthread_rwlock_wrlock_trylock(&rwlock), 0);
    });
}

TEST(KorvaksHpp, LoopsOverListsAndTables)
{
    test::in_child([] {
        EXPECT_TRUE(korvaks::with_area(1000, [](stg_area *area) {
            list_record *list = list_create(area, 0);
            std::string found;
            for (const char *text : korvaks::items<const char>(list))
                found += text;
            for (const char *text : {"a", "b", "c"})
                list_append(list, const_cast<char *>(text));
            for (const char *text : korvaks::items<const char>(list))
                found += text;
            EXPECT_EQ(found, "abc");
        }));
        hash_ht *table = hash_str_create(4, sizeof(int), 1);
        hash_set_order(table);
        for (const char *key : {"x", "y"}) {
            void *data = nullptr;
            hash_str_enter(table, key, nullptr, &data);
            *static_cast<int *>(data) = *key;
        }
        std::string in_order;
        for (const auto &[key, data] : korvaks::str_cells_in_order<const int>(table))
            in_order += std::string(key) + std::to_string(*data);
        EXPECT_EQ(in_order, "x120y121");
        for (const auto &[key, data] : korvaks::str_cells<int>(table))
            EXPECT_EQ(*data, *key);
        hash_delete_ht(&table);
    });
}

} // namespace
