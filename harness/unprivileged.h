// Makes this process somebody who may do only what a file's mode allows. Root may read and write anything.
//
//   std::filesystem::permissions("file", std::filesystem::perms::none);
//   const Unprivileged unprivileged;                                      until it goes, "file" cannot be read
#pragma once

#include <cstdlib>
#include <stdexcept>
#include <unistd.h>

namespace fixture {

class Unprivileged {
public:
    Unprivileged() : was_(geteuid()) {
        constexpr uid_t kNobody = 65534;
        if (was_ == 0 && seteuid(kNobody) != 0) throw std::runtime_error("root cannot be left");
    }
    ~Unprivileged() {
        if (seteuid(was_) != 0) std::abort();
    }
    Unprivileged(const Unprivileged &) = delete;
    Unprivileged &operator=(const Unprivileged &) = delete;

private:
    uid_t was_;
};

} // namespace fixture
