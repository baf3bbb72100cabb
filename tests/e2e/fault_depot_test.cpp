// Storing and fetching under failing calls and raises: the old or the new, whole, and nothing beside it.
#include "depot.h"
#include "depot_report.h"
#include "harness/child.h"
#include "harness/fault_sweep.h"

#include <filesystem>
#include <iterator>

#include <fcntl.h>
#include <unistd.h>

namespace {

using test::fault::Call;
using test::fault::Operation;
using test::fault::Trial;

const depot::Label label = {nullptr, "owner", "comment", true};
depot::Depot opened; // a raise leaves it as it is

std::size_t files_in(const char *directory)
{
    return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator(directory), {}));
}

// Where a busy disk makes no run wait for longer than it may be silent.
test::TempDir home_in_memory()
{
    (void)setenv("TMPDIR", "/dev/shm", 0);
    return test::TempDir();
}

bool is_verified()
{
    depot::Depot other;
    const bool is_sound = depot::open_depot("depot", false, other) && depot::verify_entry(other, "file");
    depot::close_depot(other);
    return is_sound;
}

class FaultDepot : public testing::Test {
  protected:
    // More than a block, of which the second is stored as it is.
    void SetUp() override
    {
        old_content_ = "noise" + std::string(1 << 20, 'o');
        new_content_ = "NOISE" + std::string(1 << 20, 'n');
        ASSERT_EQ(chdir(home_.path().c_str()), 0);
    }
    void TearDown() override { ASSERT_EQ(chdir("/"), 0); }

    // The old entry, made once, and the new file.
    void start()
    {
        const char *const path = "depot/file.vde";
        opened = {};
        if (old_entry_.empty()) {
            (void)depot::start_messages("veldepot");
            dup2(open("/dev/null", O_WRONLY | O_CLOEXEC), 1);
            test::write_file("file", old_content_);
            (void)(depot::open_depot("depot", true, opened) && depot::put_file(opened, "file", label));
            depot::close_depot(opened);
            old_entry_ = test::read_file(path);
        }
        test::write_file(path, old_entry_);
        test::write_file("file", new_content_);
    }

    Operation operation(const char *name)
    {
        return Operation(name)
            .setup([this] { start(); })
            .cleanup([] { depot::close_depot(opened); })
            .spares({Call::close});
    }

    test::TempDir home_ = home_in_memory();
    std::string old_content_;
    std::string new_content_;
    std::string old_entry_;
};

TEST_F(FaultDepot, PutKeepsTheOldEntryOrMakesTheNew)
{
    operation("put")
        .act([] { return depot::open_depot("depot", true, opened) && depot::put_file(opened, "file", label); })
        .check([](const Trial &) -> const char * {
            depot::close_depot(opened);
            return files_in("depot") == 1 && is_verified() ? nullptr : "a file is left, or the entry is not whole";
        })
        .sweep()
        .sweep_raises();
}

TEST_F(FaultDepot, GetKeepsTheOldFileOrMakesTheNew)
{
    operation("get")
        .act([] { return depot::open_depot("depot", false, opened) && depot::get_file(opened, "file", nullptr, true); })
        .check([this](const Trial &trial) -> const char * {
            depot::close_depot(opened);
            const std::string content = test::read_file("file");
            const bool is_right = content == (trial.is_done ? old_content_ : new_content_);
            const bool is_late = trial.raised != 0 || trial.failed(Call::sync); // maybe after the file was put in place
            const bool is_either = is_late && content == old_content_;
            return files_in(".") == 2 && (is_right || is_either) ? nullptr : "a file is left, or it is not whole";
        })
        .sweep()
        .sweep_raises();
}

} // namespace
