/// Counts findings and hands them out, up to a number of each class.
#pragma once

#include "check/check.hpp"
#include "platform/assert.hpp"

namespace tavelin::check {

class Reporter {
  public:
    Reporter(const Options& options, Report& report) : options_(options), report_(report) {}

    /// Whether a finding of this class would be handed out; otherwise its texts need not be made.
    [[nodiscard]] bool wants(FindingClass kind) const noexcept {
        return muted_ == 0 && options_.onFinding &&
               report_.counts[static_cast<std::size_t>(kind)] < options_.findingsPerClassMax;
    }
    void add(const Finding& finding) {
        TAVELIN_ASSERT(finding.kind < FindingClass::count);
        if (muted_ > 0) {
            return;
        }
        if (wants(finding.kind)) {
            options_.onFinding(finding);
        }
        ++report_.counts[static_cast<std::size_t>(finding.kind)];
    }
    /// Findings without their texts.
    void count(FindingClass kind, std::uint64_t number = 1) noexcept {
        report_.counts[static_cast<std::size_t>(kind)] += muted_ == 0 ? number : 0;
    }
    [[nodiscard]] std::uint64_t counted(FindingClass kind) const noexcept {
        return report_.counts[static_cast<std::size_t>(kind)];
    }

    /// For reading again what has been reported on before.
    class Mute {
      public:
        explicit Mute(Reporter& reporter) : reporter_(reporter) { ++reporter_.muted_; }
        ~Mute() {
            TAVELIN_ASSERT(reporter_.muted_ > 0);
            --reporter_.muted_;
        }
        Mute(const Mute&) = delete;
        Mute& operator=(const Mute&) = delete;

      private:
        Reporter& reporter_;
    };

  private:
    const Options& options_;
    Report& report_;
    int muted_ = 0;
};

} // namespace tavelin::check
