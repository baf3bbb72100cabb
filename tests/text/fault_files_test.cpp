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
#include <string>

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace {

using test::fault::Call;
using test::fault::has_said;
using test::fault::Scenario;
using test::fault::Trial;

constexpr std::size_t content_bytes = 20000;

// A file that all scenarios read, and one that they write.
char content[content_bytes + 1];
std::string read_path;
std::string write_path;
char *text = nullptr;
unsigned result = 0;
int error = 0;

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

const char *check_text(const Trial &trial)
{
    if (text != nullptr) {
        if (trial.plan.answer == test::fault::answer_end && trial.failed(Call::read))
            return std::strncmp(text, content, std::strlen(text)) == 0 ? nullptr : "not what the file holds";
        return std::strcmp(text, content) == 0 ? nullptr : "not the file";
    }
    if (trial.raised != 0)
        return nullptr;
    if (!trial.fired)
        return "refused without a cause";
    if (trial.plan.noise != 0)
        return error == EINTR ? nullptr : "not the error of the interruption";
    if (error != trial.plan.answer)
        return "errno is not the failing call's";
    const bool is_said = trial.failed(Call::allocation) || has_said(strerror(error));
    return is_said ? nullptr : "the failure is not reported";
}

const Scenario read_file{
    .name = "strutl_read",
    .setup = [] { text = nullptr; },
    .act =
        [] {
            text = strutl_read(STG_AREA_HEAP, read_path.c_str(), nullptr, 0, 0);
            error = errno;
        },
    .check = check_text,
    .cleanup = [] { stg_free(text); },
};

TEST_F(FaultFiles, ReadAsAString)
{
    test::fault::sweep(read_file);
    test::fault::sweep_raises(read_file);
    test::fault::sweep_noise(read_file, 200);
}

FILE *stream = nullptr;

const Scenario read_stream{
    .name = "strutl_read_fp",
    .setup =
        [] {
            text = nullptr;
            stream = test::fault::stream_over(open(read_path.c_str(), O_RDONLY | O_CLOEXEC), "r");
        },
    .act =
        [] {
            text = strutl_read_fp(STG_AREA_HEAP, 0, stream, 0, nullptr);
            error = errno;
        },
    .check = check_text,
    .cleanup =
        [] {
            stg_free(text);
            fclose(stream);
        },
};

TEST_F(FaultFiles, ReadFromAStream)
{
    test::fault::sweep(read_stream);
    test::fault::sweep_noise(read_stream, 200);
}

const Scenario write_file{
    .name = "strutl_write",
    .act =
        [] {
            result = strutl_write(content, write_path.c_str(), nullptr, 0);
            error = errno;
        },
    .check = [](const Trial &trial) -> const char * {
        if (trial.raised != 0)
            return nullptr;
        if (result != 0) {
            if (!trial.fired)
                return "refused without a cause";
            return trial.plan.noise != 0 || (error == trial.plan.answer && has_said(strerror(error)))
                       ? nullptr
                       : "errno or message is not the failing call's";
        }
        static char written[content_bytes + 1];
        const int fd = open(write_path.c_str(), O_RDONLY | O_CLOEXEC);
        const ssize_t got = read(fd, written, sizeof written);
        close(fd);
        return got == ssize_t{content_bytes} && std::memcmp(written, content, content_bytes) == 0
                   ? nullptr
                   : "success, and the file is not the text";
    },
};

TEST_F(FaultFiles, Write)
{
    test::fault::sweep(write_file);
    test::fault::sweep_raises(write_file);
    test::fault::sweep_noise(write_file, 200);
}

uint32_t crc = 0;
uint32_t expected_crc = 0;
int crc_result = 0;
int crc_error = 0;

const Scenario checksum{
    .name = "fileutl_crc",
    .setup =
        [] {
            (void)fileutl_crc_buffer(content, content_bytes, &expected_crc);
            crc = 1;
            crc_error = 0;
        },
    .act = [] { crc_result = fileutl_crc(read_path.c_str(), &crc, &crc_error); },
    .check = [](const Trial &trial) -> const char * {
        if (trial.plan.answer == test::fault::answer_end)
            return crc_result == 0 ? nullptr : "an end is no failure";
        if (crc_result == 0)
            return crc == expected_crc && crc_error == 0 ? nullptr : "not the checksum of the file";
        if (crc_result != FILEUTL_CRC_FAILED || crc != 1)
            return "half a failure";
        const bool may_fail = trial.plan.answer != EINTR || trial.plan.goes_on;
        return trial.fired && trial.plan.noise == 0 && may_fail && crc_error == trial.plan.answer
                   ? nullptr
                   : "refused without a cause";
    },
};

TEST_F(FaultFiles, Checksum)
{
    test::fault::sweep(checksum);
    test::fault::sweep_noise(checksum, 500);
}

int exists = 0;
int stat_result = 0;
struct stat status;

TEST_F(FaultFiles, Questions)
{
    test::fault::sweep({
        .name = "fileutl_exists, fileutl_stat",
        .setup = [] { status.st_size = -1; },
        .act =
            [] {
                errno = 77;
                exists = fileutl_exists(read_path.c_str());
                error = errno;
                stat_result = fileutl_stat(read_path.c_str(), &status);
            },
        .check = [](const Trial &trial) -> const char * {
            if (error != 77)
                return "errno does not stay";
            const bool is_interrupted = trial.plan.answer == EINTR;
            if ((exists == 0 || stat_result != 0) != (trial.fired && !is_interrupted))
                return "not the answer of stat()";
            return stat_result == 0 || status.st_size == -1 ? nullptr : "half an answer";
        },
    });
}

// --- Compression ---

std::size_t packed_length = 0;
std::size_t unpacked_length = 0;
unsigned char *packed = nullptr;
unsigned char *unpacked = nullptr;

const unsigned char *bytes_of_content()
{
    return reinterpret_cast<const unsigned char *>(content);
}

const Scenario packing{
    .name = "compress_compress",
    .setup = [] { packed = nullptr; },
    .act = [] { packed = compress_compress(content_bytes, bytes_of_content(), &packed_length); },
    .check = [](const Trial &trial) -> const char * {
        if (trial.raised != 0)
            return nullptr;
        if (packed == nullptr)
            return trial.fired && packed_length == 0 ? nullptr : "refused without a cause";
        unsigned char *again = compress_uncompress(packed_length, packed, &unpacked_length);
        const bool is_same =
            again != nullptr && unpacked_length == content_bytes && std::memcmp(again, content, content_bytes) == 0;
        stg_free(again);
        return is_same && !trial.failed(Call::allocation) ? nullptr : "not the data";
    },
    .cleanup = [] { stg_free(packed); },
};

const Scenario unpacking{
    .name = "compress_uncompress",
    .setup =
        [] {
            unpacked = nullptr;
            packed = compress_compress(content_bytes, bytes_of_content(), &packed_length);
        },
    .act = [] { unpacked = compress_uncompress(packed_length, packed, &unpacked_length); },
    .check = [](const Trial &trial) -> const char * {
        if (trial.raised != 0)
            return nullptr;
        if (unpacked == nullptr)
            return trial.failed(Call::allocation) && unpacked_length == 0 && has_said("Unable to allocate storage.\n")
                       ? nullptr
                       : "refused without a cause";
        return unpacked_length == content_bytes ? nullptr : "not the data";
    },
    .cleanup =
        [] {
            stg_free(packed);
            stg_free(unpacked);
        },
};

TEST_F(FaultFiles, Compression)
{
    test::fault::sweep(packing);
    test::fault::sweep_raises(packing);
    test::fault::sweep(unpacking);
    // A block that is refused, which prints.
    Scenario refused = unpacking;
    refused.name = "compress_uncompress of a damaged block";
    refused.act = [] { unpacked = compress_uncompress(4, packed, &unpacked_length); };
    refused.check = [](const Trial &) { return unpacked == nullptr ? nullptr : "not refused"; };
    test::fault::sweep_raises(refused);
}

// --- Descriptors and names of the system ---

int fd = -1;
char name[256];

TEST_F(FaultFiles, SystemQuestions)
{
    test::fault::sweep({
        .name = "sysutl_set_cloexec_file",
        .setup = [] { fd = dup(0); },
        .act =
            [] {
                stat_result = sysutl_set_cloexec_file(fd);
                error = errno;
            },
        .check = [](const Trial &trial) -> const char * {
            if (trial.fired)
                return stat_result == -1 && error == trial.plan.answer ? nullptr : "the failure goes unseen";
            return stat_result == 0 && fcntl(fd, F_GETFD) == FD_CLOEXEC ? nullptr : "not marked";
        },
        .cleanup = [] { close(fd); },
    });
    for (const auto ask : {sysutl_myhostname, sysutl_user_name}) {
        static int (*asked)(char *, size_t);
        asked = ask;
        test::fault::sweep({
            .name = "sysutl_myhostname, sysutl_user_name",
            .setup = [] { std::strcpy(name, "before"); },
            .act =
                [] {
                    stat_result = asked(name, sizeof name);
                    error = errno;
                },
            .check = [](const Trial &trial) -> const char * {
                if (stat_result == 0)
                    return std::strcmp(name, "before") != 0 ? nullptr : "no name";
                if (!trial.fired || std::strcmp(name, "before") != 0)
                    return "refused without a cause, or by half";
                return error == trial.plan.answer ? nullptr : "not the error of the failing call";
            },
        });
    }
    test::fault::sweep_first_use({
        .name = "sysutl_get_umask, sysutl_get_max_fds",
        .act =
            [] {
                result = sysutl_get_umask();
                error = sysutl_get_max_fds();
            },
        .check = [](const Trial &) -> const char * {
            const mode_t now = umask(0);
            umask(now);
            return result == now && error > 0 ? nullptr : "not what the process was started with";
        },
    });
}

} // namespace
