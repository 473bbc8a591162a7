// A file whose file system says nothing any more: what a stranger may hand to a service.
#pragma once

#include "framework_support.h"

#include <atomic>
#include <cstdint>

namespace support {

/// One file of a FUSE file system that answers until the file is open, and nothing from then on. Whoever asks it
/// anything waits, deaf to signals, until this object goes. The other side is a process of its own, which ends with
/// this one at the latest: nobody is left waiting.
class silent_file {
public:
    silent_file();
    ~silent_file();
    silent_file(const silent_file&) = delete;
    silent_file& operator=(const silent_file&) = delete;

    /// The open file, for reading and writing; -1 = no FUSE to be had here.
    int fd() const { return fd_.get(); }
    /// How often the file system was asked to do `opcode` (enum fuse_opcode).
    uint32_t asked(uint32_t opcode) const { return asked_->by_opcode[opcode]; }
    /// How often it was asked anything that was to be answered.
    uint32_t asked() const { return asked_->all; }

private:
    struct questions {
        std::atomic<uint32_t> by_opcode[64];
        std::atomic<uint32_t> all;
    };
    void answer_until_open(int device) const;

    shared<questions> asked_;
    pid_t server_ = -1;
    descriptor fd_;
};

} // namespace support
