// Explores the states of a volume: goes on from one that it has been to by operations that lead to
// new ones, holds every answer against the model, and notes a place to go on from now and then.
//
// Two states are one where they differ only in the names, bytes and times of items of the same
// classes. What makes a state: the tree with the kinds of its items, hidden bits, classes of names,
// of sizes and of zeroes at the end, streams, hard links by their depths, and whether anything has
// not been synchronised or is in the journal. Trees are small, so that there is an end to them.
//
// The steps, in which all is the same for the same seed: a walk begins at the place with the
// fewest walks from it and the shortest script. Three steps in four lead to a new state as far as
// the model can tell; after each, the items it touched are compared with the model. It ends with a
// cut of the power: the image gets the structural check, and all that the volume then opened from
// it holds is compared.
#pragma once

#include "lab/agreement.hpp"
#include "support/bytes.hpp"

#include <iosfwd>
#include <unordered_set>

namespace tavelin::test {

// The model of a volume, and how far it is from the disk.
struct Place {
    Model model{};
    bool unsynchronised = false; // changes since the last synchronise
    bool journaled = false;      // synchronised changes since the volume was opened or settled

    Answer apply(const Operation& op);
    std::uint64_t state() const;
};

// How the volume under test is made; a test of the explorer has one with a fault.
using MakeSystem = std::function<std::unique_ptr<System>(System::Open)>;
std::unique_ptr<System> plainSystem(System::Open open);

// What goes wrong first when a script runs on a formatted volume; empty when nothing does.
std::string play(const Operations& script, const Bytes& formatted,
                 const MakeSystem& make = plainSystem);

class Explorer {
  public:
    // Of `workers` that share a seed, each explores the states that no other does, though they all
    // pass through those of others.
    struct Part {
        std::uint64_t seed = 1;
        std::uint64_t worker = 0;
        std::uint64_t workers = 1;
    };
    struct Figures {
        std::uint64_t walks = 0;
        std::uint64_t operations = 0;
        std::uint64_t comparisons = 0; // of everything
        std::uint64_t cuts = 0;        // with a structural check and a mount each
    };

    Explorer(Part part, Bytes formatted, MakeSystem make = plainSystem);

    // Takes one walk; answers what went wrong. Each operation is written to `trace` before it is
    // carried out, after those that led to where the walk begins.
    std::string walk(std::ostream& trace);
    // That of the last walk, from the formatted volume on.
    const Operations& script() const { return script_; }

    const std::unordered_set<std::uint64_t>& states() const { return states_; }
    const Figures& figures() const { return figures_; }

    // All that the next walks depend on, besides what the constructor gets.
    void save(std::ostream& out) const;
    // Throws std::runtime_error for what is no such thing.
    void load(std::istream& in);

  private:
    // Where walks begin.
    struct Start {
        Operations script;
        std::uint64_t walks = 0; // that began there
        Bytes image{};           // none yet after load()
        Place place{};

        std::uint64_t cost() const;
    };

    Start& next();
    bool isMine(std::uint64_t state) const { return state % part_.workers == part_.worker; }
    bool isNew(std::uint64_t state) const;
    Operation choose(const Place& place, OperationSource& source, std::mt19937_64& random) const;

    const Part part_;
    const Bytes formatted_;
    const MakeSystem make_;
    std::vector<Start> starts_;
    std::unordered_set<std::uint64_t> states_;
    Operations script_;
    Figures figures_;
};

} // namespace tavelin::test
