#include "hosts/cli/shell/line_editor.hpp"

#include "hosts/cli/failure.hpp"
#include "hosts/cli/interruption.hpp"
#include "hosts/cli/shell/words.hpp"

#include <algorithm>
#include <clocale>
#include <csignal>
#include <cstdio>
#include <cwchar>
#include <histedit.h>
#include <poll.h>
#include <unistd.h>

namespace tavelin::cli {
namespace {

constexpr int kHistoryLines = 1000;

/// What all of the words begin with.
std::string commonBeginning(const std::vector<std::string>& words) {
    std::string common = words.front();
    for (const std::string& word : words) {
        const auto differs = std::mismatch(common.begin(), common.end(), word.begin(), word.end());
        common.erase(differs.first, common.end());
    }
    return common;
}

} // namespace

struct LineEditor::State {
    /// Holds back the signals that interrupt while a line is read, so that none arrives between the
    /// question whether there was one and the wait for the next character.
    class SignalsHeldBack {
      public:
        SignalsHeldBack() {
            sigset_t held;
            sigemptyset(&held);
            for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
                sigaddset(&held, signal);
            }
            pthread_sigmask(SIG_BLOCK, &held, &before_);
        }
        ~SignalsHeldBack() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
        SignalsHeldBack(const SignalsHeldBack&) = delete;
        SignalsHeldBack& operator=(const SignalsHeldBack&) = delete;

        /// Waits until there is input. False when a signal has arrived instead.
        [[nodiscard]] bool awaitInput() const {
            pollfd input{STDIN_FILENO, POLLIN, 0};
            return ppoll(&input, 1, nullptr, &before_) > 0;
        }

      private:
        sigset_t before_{};
    };

    struct EndEditing {
        void operator()(EditLine* ended) const noexcept { el_end(ended); }
    };
    struct EndHistory {
        void operator()(History* ended) const noexcept { history_end(ended); }
    };

    std::string prompt;
    Complete complete;
    const SignalsHeldBack* signals = nullptr; // while a line is read
    std::unique_ptr<History, EndHistory> history;
    std::unique_ptr<EditLine, EndEditing> editor; // before the history goes

    static State& of(EditLine* editor) {
        void* state = nullptr;
        el_get(editor, EL_CLIENTDATA, &state);
        return *static_cast<State*>(state);
    }

    /// The editor's way to a character: 1, 0 at the end, -1 for a signal or an error.
    static int readCharacter(EditLine* editor, wchar_t* character) {
        std::mbstate_t decoder{};
        for (;;) {
            char byte = 0;
            if (!of(editor).signals->awaitInput()) {
                return -1;
            }
            const ssize_t count = ::read(STDIN_FILENO, &byte, 1);
            if (count <= 0) {
                return static_cast<int>(count);
            }
            // NOLINTNEXTLINE(concurrency-mt-unsafe): the decoder is this call's own
            const std::size_t length = std::mbrtowc(character, &byte, 1, &decoder);
            if (length == static_cast<std::size_t>(-1)) {
                decoder = {}; // no character of this terminal
            } else if (length != static_cast<std::size_t>(-2)) {
                return 1;
            }
        }
    }

    static char* promptOf(EditLine* editor) { return of(editor).prompt.data(); }

    /// The key of completion: goes on as far as there is one way, and else shows the ways.
    static unsigned char completeKey(EditLine* editor, int /*key*/) {
        const LineInfo* const line = el_line(editor);
        const std::string_view typed(line->buffer,
                                     static_cast<std::size_t>(line->cursor - line->buffer));
        const std::vector<std::string> words = of(editor).complete(typed);
        if (words.empty()) {
            return CC_ERROR;
        }
        const std::string_view word = typed.substr(lastWord(typed).begin);
        std::string common = commonBeginning(words);
        if (words.size() == 1 && !common.ends_with('/')) {
            common += ' ';
        }
        if (common.size() > word.size() || (words.size() == 1 && common != word)) {
            el_deletestr(editor, static_cast<int>(word.size()));
            return el_insertstr(editor, common.c_str()) == 0 ? CC_REFRESH : CC_ERROR;
        }
        std::fputc('\n', stdout);
        for (const std::string& each : words) {
            std::fprintf(stdout, "%s\n", each.c_str());
        }
        return CC_REDISPLAY;
    }
};

LineEditor::LineEditor(Complete complete) : state_(std::make_unique<State>()) {
    // By which the editor knows the terminal's characters.
    std::setlocale(LC_CTYPE, ""); // NOLINT(concurrency-mt-unsafe): one thread
    state_->complete = std::move(complete);
    state_->history.reset(history_init());
    state_->editor.reset(el_init("tavelin", stdin, stdout, stderr));
    if (!state_->history || !state_->editor) {
        throw Failure("the terminal cannot be used");
    }
    HistEvent event{};
    history(state_->history.get(), &event, H_SETSIZE, kHistoryLines);
    history(state_->history.get(), &event, H_SETUNIQUE, 1);
    EditLine* const editor = state_->editor.get();
    el_set(editor, EL_CLIENTDATA, state_.get());
    el_set(editor, EL_GETCFN, State::readCharacter);
    el_set(editor, EL_PROMPT, State::promptOf);
    el_set(editor, EL_EDITOR, "emacs");
    el_set(editor, EL_HIST, history, state_->history.get());
    // The call for narrow text copies these and never lets go of the copies.
    el_wset(editor, EL_ADDFN, L"complete", L"complete the word", State::completeKey);
    el_set(editor, EL_BIND, "^I", "complete", nullptr);
}

LineEditor::~LineEditor() = default;

std::optional<std::string> LineEditor::read(const std::string& prompt) {
    state_->prompt = prompt;
    const State::SignalsHeldBack signals;
    state_->signals = &signals;
    int count = 0;
    const char* line = nullptr;
    while (true) {
        try {
            throwIfInterrupted();
            // By itself the editor does this behind the prompt. What is typed before it would be
            // shown twice, and the key for the end of the input would not count.
            el_set(state_->editor.get(), EL_PREP_TERM, 1);
            line = el_gets(state_->editor.get(), &count);
            throwIfInterrupted();
            break;
        } catch (const Interruption& interruption) {
            if (interruption.signal() != SIGINT) {
                throw;
            }
            // While signals are held back: the next one must not meet its default action.
            forgetInterruption();
            std::fputc('\n', stdout);
        }
    }
    if (line == nullptr || count <= 0) {
        return std::nullopt;
    }
    std::string text(line, static_cast<std::size_t>(count));
    if (text.find_first_not_of(" \t\n") != std::string::npos) {
        HistEvent event{};
        history(state_->history.get(), &event, H_ENTER, text.c_str());
    }
    return text;
}

} // namespace tavelin::cli
