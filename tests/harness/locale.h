// Locales for tests: one for the length of a block, and ones that the system does not carry.
#pragma once

#include "harness/child.h"

#include <clocale>
#include <cstdlib>

namespace test {

// Sets the process locale and restores the one before.
class ScopedLocale {
  public:
    explicit ScopedLocale(const char *name) : before_(std::setlocale(LC_ALL, nullptr))
    {
        EXPECT_NE(std::setlocale(LC_ALL, name), nullptr) << "no locale " << name;
    }
    ~ScopedLocale() { std::setlocale(LC_ALL, before_.c_str()); }
    ScopedLocale(const ScopedLocale &) = delete;
    ScopedLocale &operator=(const ScopedLocale &) = delete;

  private:
    std::string before_;
};

// Compiles a locale into a directory of its own and sets it; the one before comes back with the end.
// It is not there where the system has no localedef or no locale sources.
class CompiledLocale {
  public:
    // `charmap` is the name of an encoding, or the path of a file that describes it and bears its name.
    CompiledLocale(const std::string &source, const std::string &charmap) : before_(std::setlocale(LC_ALL, nullptr))
    {
        const std::string name = source + "." + charmap.substr(charmap.rfind('/') + 1);
        // It warns, and so fails, where the encoding differs from ASCII in a character.
        const std::string command =
            "localedef -f " + charmap + " -i " + source + " " + dir_.file(name) + " >/dev/null 2>&1";
        [[maybe_unused]] const int warned = std::system(command.c_str());
        setenv("LOCPATH", dir_.path().c_str(), 1);
        is_there_ = std::setlocale(LC_ALL, name.c_str()) != nullptr;
    }
    ~CompiledLocale()
    {
        unsetenv("LOCPATH");
        std::setlocale(LC_ALL, before_.c_str());
    }
    CompiledLocale(const CompiledLocale &) = delete;
    CompiledLocale &operator=(const CompiledLocale &) = delete;

    bool is_there() const { return is_there_; }

  private:
    TempDir dir_;
    std::string before_;
    bool is_there_ = false;
};

} // namespace test
