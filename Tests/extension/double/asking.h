// How the daemon sends one request and takes its reply, whatever the shape of the reply block.
#pragma once

#import "extension/double/daemon.h"

namespace tavelin::test {

// The arguments of a reply block.
template<typename... Arguments>
struct Reply {};
using Done = Reply<NSError *>;
template<typename Value>
using Gets = Reply<Value, NSError *>;
using GetsNamedItem = Reply<FSItem *, FSFileName *, NSError *>;

// What the reply blocks do with what they get: one call for each shape that FSKit has.
struct Into {
    Answer *answer;

    void operator()() const { ++answer->replies; }
    void operator()(NSError *error) const {
        (*this)();
        answer->error = Strong(error);
    }
    void operator()(id object, NSError *error) const {
        answer->object = Strong(object);
        (*this)(error);
    }
    void operator()(FSFileName *name, NSError *error) const {
        answer->name = Strong(name);
        (*this)(error);
    }
    void operator()(FSItem *item, FSFileName *name, NSError *error) const {
        answer->object = Strong<id>(item);
        (*this)(name, error);
    }
    void operator()(std::uint64_t number, NSError *error) const {
        answer->number = number;
        (*this)(error);
    }
    void operator()(FSVolumeHandlerResult *result, NSError *error) const {
        answer->object = Strong<id>([result object]);
        answer->name = Strong([result name]);
        answer->number = result.number;
        answer->itemAttributes = Strong([result itemAttributes]);
        answer->directoryAttributes = Strong([result directoryAttributes]);
        answer->destinationAttributes = Strong([result destinationAttributes]);
        answer->freeSpace = Strong([result freeSpace]);
        (*this)(error);
    }
};

template<typename... Arguments, typename Send>
Answer Daemon::ask(Reply<Arguments...>, const Send &send) {
    ++requests_;
    Answer answer;
    const Into into{&answer};
    send(^(Arguments... arguments) {
        into(arguments...);
    });
    return answer;
}

} // namespace tavelin::test
