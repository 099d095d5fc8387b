/// Commands over one open volume: the lines of a shell or of a batch file.
#pragma once

#include "hosts/cli/failure.hpp"
#include "hosts/cli/session.hpp"

#include <string>
#include <string_view>
#include <vector>

namespace tavelin::cli {

/// Runs lines on a volume that stays open, with a working directory on it. The commands are those
/// of the command line, without IMAGE, and a few of the shell's own. One a process, one thread.
class Shell {
  public:
    /// Session and arguments outlive the shell. For `syncs` see StandingVolume.
    Shell(Session& session, const VolumeArguments& arguments, bool syncs)
        : session_(session), standing_(session, arguments, syncs) {}

    /// Runs a line and tells its failure. Throws Interruption where a signal has ended its work.
    ExitStatus run(std::string_view line);
    /// Whether a line has asked for the end.
    [[nodiscard]] bool hasEnded() const noexcept { return ended_; }
    /// What stands in front of a line that is typed.
    [[nodiscard]] std::string prompt() const;
    /// See LineEditor::Complete.
    [[nodiscard]] std::vector<std::string> completionsOf(std::string_view line) const;

  private:
    /// Whether the words were a command of the shell's own, which has run. Throws Failure.
    bool runOwn(const std::vector<std::string>& words);
    void changeDirectory(const std::string& path);
    [[nodiscard]] std::vector<std::string> pathsLike(const std::string& typed) const;

    Session& session_;
    StandingVolume standing_;
    bool ended_ = false;
};

} // namespace tavelin::cli
