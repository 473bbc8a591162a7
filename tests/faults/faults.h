// Fault loops: whatever the product allocates or asks the kernel for fails once, and fails from there on, at the first
// call of each function, at the second, and so on until there is none.
//
// Each such point is a process of its own. In it an action succeeds, meets the fault, and has to succeed again when the
// fault is over, with nothing left behind. How the action may end when it meets the fault, its scenario says; and it
// may end the process, with the line that is documented for that function.
#pragma once

#include <csignal>
#include <functional>
#include <string>
#include <vector>

namespace faults {

/// The outcome of an action that has done all it should.
inline constexpr const char* kDone = "done";

/// The outcome of an action whose own process has ended with the line that is documented for the function.
inline constexpr const char* kAborted = "aborted";

/// A way in which a fault may end the action, by the documents.
struct outcome {
    std::string text;               ///< As `judge` gives it.
    const char* function = nullptr; ///< Only where this one fails; null = where any does.
};

struct scenario {
    std::string name;
    std::function<void()> begin;   ///< Once in each process, before anything fails. May be null.
    std::function<void()> prepare; ///< Before each action. May be null.
    std::function<void()> act;     ///< What meets the fault; allocates nothing of its own.
    /// What came of it: kDone, or one of `outcomes`, or whatever else was found instead. Frees what `act` was given.
    std::function<std::string()> judge;
    std::function<void()> end; ///< Before the process is looked at for children. May be null.
    std::vector<outcome> outcomes;
};

/// For an action that takes a process of its own, which no function that fails has made: runs `body` in one.
/// @return How that process has ended. What it leaves running becomes the caller's.
siginfo_t run_in_child(const std::function<void()>& body);

/// Runs the scenario's points: three for each way in which a function fails, or as many as FAULTS_POINTS in the
/// environment says, of which 0 is all. Fails the test for each that ends in another way, and prints how many there
/// were: "fault NAME FUNCTION ERROR POINTS DONE OTHER ABORTED".
void run(const scenario& what);

} // namespace faults
