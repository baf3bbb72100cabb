// Files as strings, checksums and compression under failing calls, noise and raises.
#include "harness/child.h"
#include "harness/fault_sweep.h"

#include <korvaks/compress.h>
#include <korvaks/fileutl.h>
#include <korvaks/stg.h>
#include <korvaks/strutl.h>
#include <korvaks/sysutl.h>

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <unistd.h>

namespace {

using test::fault::Call;
using test::fault::has_said;
using test::fault::Operation;
using test::fault::Trial;

constexpr std::size_t content_bytes = 20000;

// A file that all operations read, and one that they write.
char content[content_bytes + 1];
std::string read_path;
std::string write_path;

class FaultFiles : public testing::Test {
  protected:
    void SetUp() override
    {
        for (std::size_t i = 0; i < content_bytes; ++i)
            content[i] = i % 80 == 79 ? '\n' : static_cast<char>('a' + i * i % 26);
        read_path = directory_.file("read");
        write_path = directory_.file("written");
        test::write_file(read_path, content);
    }

  private:
    test::TempDir directory_;
};

bool is_reported(const Trial &trial)
{
    return trial.failed(Call::allocation) || trial.plan.noise != 0 || has_said(strerror(trial.error));
}

char *text = nullptr;

Operation reading(const char *name)
{
    return Operation(name)
        .setup([] { text = nullptr; })
        .gives([](const Trial &trial) {
            const bool may_be_short = trial.plan.answer == test::fault::answer_end && trial.failed(Call::read);
            return std::strncmp(text, content, may_be_short ? std::strlen(text) : sizeof content) == 0;
        })
        .keeps(is_reported)
        .sets_errno()
        .cleanup([] { stg_free(text); });
}

TEST_F(FaultFiles, ReadAsAString)
{
    reading("strutl_read")
        .act([] { return (text = strutl_read(STG_AREA_HEAP, read_path.c_str(), nullptr, 0, 0)) != nullptr; })
        .sweep()
        .sweep_raises()
        .sweep_noise(200);
    FILE *stream = nullptr;
    reading("strutl_read_fp")
        .setup([&] {
            text = nullptr;
            stream = test::fault::stream_over(open(read_path.c_str(), O_RDONLY | O_CLOEXEC), "r");
        })
        .act([&] { return (text = strutl_read_fp(STG_AREA_HEAP, 0, stream, 0, nullptr)) != nullptr; })
        .cleanup([&] {
            stg_free(text);
            fclose(stream);
        })
        .sweep()
        .sweep_noise(200);
}

TEST_F(FaultFiles, Write)
{
    Operation("strutl_write")
        .act([] { return strutl_write(content, write_path.c_str(), nullptr, 0) == 0; })
        .gives([] {
            static char written[content_bytes + 1];
            const int fd = open(write_path.c_str(), O_RDONLY | O_CLOEXEC);
            const ssize_t got = read(fd, written, sizeof written);
            close(fd);
            return got == ssize_t{content_bytes} && std::memcmp(written, content, content_bytes) == 0;
        })
        .keeps([](const Trial &trial) {
            const bool is_mute = trial.plan.noise != 0 || (trial.failed(Call::write) && trial.plan.goes_on);
            return is_mute || has_said(strerror(trial.error));
        })
        .sets_errno()
        .sweep()
        .sweep_raises()
        .sweep_noise(200);
}

TEST_F(FaultFiles, Checksum)
{
    uint32_t expected = 0;
    uint32_t crc = 0;
    int result = 0;
    int error = 0;
    (void)fileutl_crc_buffer(content, content_bytes, &expected);
    Operation("fileutl_crc")
        .setup([&] {
            crc = 1;
            error = 0;
        })
        .act([&] { return (result = fileutl_crc(read_path.c_str(), &crc, &error)) == 0; })
        .gives([&](const Trial &trial) {
            return trial.plan.answer == test::fault::answer_end || (crc == expected && error == 0);
        })
        .keeps([&](const Trial &trial) {
            const bool may_fail = trial.plan.answer != EINTR || trial.plan.goes_on;
            return result == FILEUTL_CRC_FAILED && crc == 1 && may_fail && error == trial.plan.answer &&
                   trial.plan.noise == 0;
        })
        .sweep()
        .sweep_noise(500);
}

TEST_F(FaultFiles, Questions)
{
    bool exists = false;
    bool is_known = false;
    int error = 0;
    struct stat status;
    Operation("fileutl_exists, fileutl_stat")
        .setup([&] { status.st_size = -1; })
        .act([&] {
            errno = 77;
            exists = fileutl_exists(read_path.c_str()) != 0;
            error = errno;
            is_known = fileutl_stat(read_path.c_str(), &status) == 0;
        })
        .gives([&](const Trial &trial) {
            const bool fails = trial.fired && trial.plan.answer != EINTR;
            return error == 77 && (!exists || !is_known) == fails && (is_known || status.st_size == -1);
        })
        .sweep();
}

// --- Compression ---

std::size_t packed_length = 0;
std::size_t unpacked_length = 0;
unsigned char *packed = nullptr;
unsigned char *unpacked = nullptr;

void pack()
{
    packed = compress_compress(content_bytes, reinterpret_cast<const unsigned char *>(content), &packed_length);
}

// A length that the block may not have as well.
bool unpack(std::size_t length)
{
    unpacked = nullptr;
    return (unpacked = compress_uncompress(length, packed, &unpacked_length)) != nullptr;
}

void free_blocks()
{
    stg_free(packed);
    stg_free(unpacked);
    packed = unpacked = nullptr;
}

bool is_unpacked()
{
    return unpacked_length == content_bytes && std::memcmp(unpacked, content, content_bytes) == 0;
}

TEST_F(FaultFiles, Compression)
{
    Operation("compress_compress")
        .act([] {
            pack();
            return packed != nullptr;
        })
        .gives([](const Trial &trial) {
            return unpack(packed_length) && is_unpacked() && !trial.failed(Call::allocation);
        })
        .keeps([] { return packed_length == 0; })
        .cleanup(free_blocks)
        .sweep()
        .sweep_raises();
    for (const auto work : {compress_uncompress, compress_uncompress_quiet}) {
        Operation unpacking("compress_uncompress, compress_uncompress_quiet");
        unpacking.setup(pack)
            .act([work] {
                unpacked_length = 99;
                return (unpacked = work(packed_length, packed, &unpacked_length)) != nullptr;
            })
            .gives(is_unpacked)
            .keeps([] { return unpacked_length == 0; })
            .sets_errno()
            .says(work == compress_uncompress ? "Unable to allocate storage.\n" : "")
            .cleanup(free_blocks)
            .sweep();
        // A block that is refused, which prints.
        if (work == compress_uncompress)
            unpacking.act([] { return !unpack(4); }).gives([] { return true; }).sweep_raises();
    }
}

// --- Descriptors and names of the system ---

TEST_F(FaultFiles, SystemQuestions)
{
    int fd = -1;
    Operation("sysutl_set_cloexec_file")
        .setup([&] { fd = dup(0); })
        .act([&] { return sysutl_set_cloexec_file(fd) == 0; })
        .gives([&] { return fcntl(fd, F_GETFD) == FD_CLOEXEC; })
        .cleanup([&] { close(fd); })
        .notices()
        .sets_errno()
        .sweep();
    char name[256];
    for (const auto ask : {sysutl_myhostname, sysutl_user_name})
        Operation("sysutl_myhostname, sysutl_user_name")
            .setup([&] { std::strcpy(name, "before"); })
            .act([&] { return ask(name, sizeof name) == 0; })
            .gives([&] { return std::strcmp(name, "before") != 0; })
            .keeps([&] { return std::strcmp(name, "before") == 0; })
            .sets_errno()
            .sweep();
}

} // namespace
