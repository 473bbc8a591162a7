// What a tool leaves behind about its call, and what a test told it to do instead of its job.
#ifndef VEXPROD_HOSTSIM_RECORD_H
#define VEXPROD_HOSTSIM_RECORD_H

#include <optional>
#include <string>

/// Standard streams and descriptors as the tool was started with; take it before anything else is opened.
class started_with {
public:
    /// Lists the descriptors, then opens /dev/null on those of 0, 1 and 2 that are closed, so that no file that is
    /// opened later takes their place.
    started_with();
    [[nodiscard]] const std::string& descriptors() const { return descriptors_; }

private:
    std::string descriptors_; ///< "number target\n" for each
};

/// The knobs and records of one tool.
class tool_files {
public:
    /// @param tool_path  For example "/sbin/cfgread".
    explicit tool_files(const std::string& tool_path);

    /// Writes down the call. Whoever lists the records sees a whole one or none.
    void record(const started_with& start, int argc, char** argv);

    /// The bytes of knob `name`: the one for this very call ("exit.2" for the second) before the general one ("exit").
    [[nodiscard]] std::optional<std::string> knob(const std::string& name) const;

private:
    std::string calls_;
    std::string knobs_;
    unsigned number_ = 0; ///< this call's, from 1, once recorded
};

#endif
