#include "temp_file.h"

#include "read_fd.h"
#include "unique_fd.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <sys/stat.h>
#include <utility>

temp_file::temp_file() noexcept {
    char path[sizeof path_] = "/tmp/vexprod-XXXXXX";
    const unique_fd created(::mkostemp(path, O_CLOEXEC));
    if (created.ok()) {
        std::memcpy(path_, path, sizeof path_);
        owned_ = true;
    }
}

temp_file::temp_file(temp_file&& other) noexcept : owned_(std::exchange(other.owned_, false)) {
    std::memcpy(path_, other.path_, sizeof path_);
}

temp_file& temp_file::operator=(temp_file&& other) noexcept {
    if (this != &other) {
        if (owned_) {
            (void)remove();
        }
        std::memcpy(path_, other.path_, sizeof path_);
        owned_ = std::exchange(other.owned_, false);
    }
    return *this;
}

temp_file::~temp_file() {
    if (owned_) {
        (void)remove(); // whoever must know calls remove() itself
    }
}

std::string temp_file::read_all() const {
    return read_at_most(std::numeric_limits<std::size_t>::max());
}

std::string temp_file::read_at_most(std::size_t limit_bytes) const {
    const unique_fd file(::open(path_, O_RDONLY | O_CLOEXEC));
    struct stat status = {};
    if (!file.ok() || ::fstat(file.get(), &status) != 0) {
        return {};
    }
    // As far as it reaches now: a process that the tool left behind may write on and on.
    return read_to_end(file.get(), std::min(static_cast<std::size_t>(status.st_size), limit_bytes));
}

int temp_file::remove() noexcept {
    owned_ = false;
    return ::unlink(path_);
}

const char* temp_file::release() noexcept {
    owned_ = false;
    return path_;
}
