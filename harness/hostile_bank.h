// A bank with things wrong with it, made by choices as fuzz targets make theirs, of the noise of a seed.
#pragma once

#include "harness/fuzz_input.h"

#include <map>
#include <string>

namespace fixture {

class HostileBank {
public:
    explicit HostileBank(unsigned seed);
    void write(const TemporaryDirectory &volume);

    std::string descriptor;

private:
    std::string value(const std::string &usual);
    std::string element(const std::string &name, const std::string &text);
    std::string section(const char *name, const char *base);
    std::string record(const std::string &name);
    void spoil(std::string &text);

    Bytes noise_;
    Shape shape_;
    std::string manifest_;
    std::map<std::string, std::string> files_;
};

} // namespace fixture
