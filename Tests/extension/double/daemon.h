// Plays fskitd towards the binding: makes the module, sends it requests in FSKit's order, counts
// the replies and holds the items it is handed, as the kernel would.
#pragma once

#import "extension/file_system.h"
#import "extension/volume.h"

#import "extension/double/fskit_double.h"

#include "extension/memory.hpp"

#include <string>
#include <vector>

namespace tavelin::test {

// What a request answered. Every request must answer exactly once before it returns.
struct Answer {
    int replies = 0;
    Strong<id> object;
    Strong<FSFileName *> name;
    Strong<NSError *> error;
    std::uint64_t number = 0;

    bool ok() const { return replies == 1 && error.get() == nil; }
    // The POSIX code, 0 for success; -1 for another domain or a wrong number of replies.
    int code() const;
    FSItem *item() const { return static_cast<FSItem *>(object.get()); }
    FSItemAttributes *attributes() const { return static_cast<FSItemAttributes *>(object.get()); }
    std::string text() const; // of the name
};

class Daemon {
  public:
    Daemon();

    ::TavelinFileSystem *module() const { return module_.get(); }
    ::TavelinVolume *volume() const { return volume_.get(); }
    FSItem *root() const { return root_.get(); }
    FSContainerState state() const { return module().containerStatus.state; }

    Answer probe(FSResource *resource);
    Answer load(FSResource *resource);
    Answer activate();
    // Loads, activates and mounts; fails the test when it cannot.
    void bringUp(FSResource *resource);
    // Synchronises, unmounts, reclaims what is held, deactivates and unloads; checks each answer.
    void takeDown();
    // takeDown without an opinion on the answers, which are returned in order.
    std::vector<Answer> abandon();
    Answer check(NSArray<NSString *> *words, RecordingTask *task);
    Answer format();

    Answer lookup(FSItem *directory, const std::string &name);
    Answer create(FSItem *directory, const std::string &name, FSItemType type = FSItemTypeFile);
    Answer link(FSItem *directory, const std::string &name, const std::string &target);
    Answer hardLink(FSItem *item, FSItem *directory, const std::string &name);
    Answer remove(FSItem *item, FSItem *directory, const std::string &name);
    Answer rename(FSItem *item, FSItem *from, const std::string &name, FSItem *to,
                  const std::string &newName);
    Answer readLink(FSItem *item);
    Answer getAttributes(FSItem *item);
    Answer setSize(FSItem *item, std::uint64_t size);
    Answer write(FSItem *item, const std::string &data);
    // number: the count read; object: the ByteBuffer.
    Answer read(FSItem *item, size_t length);
    std::string readText(FSItem *item, size_t length = 1 << 20);
    Answer getXattr(FSItem *item, const std::string &name);
    Answer setXattr(FSItem *item, const std::string &name, NSData *value,
                    FSSetXattrPolicy policy = FSSetXattrPolicyAlwaysSet);
    Answer listXattrs(FSItem *item);
    Answer setVolumeName(const std::string &name);
    Answer open(FSItem *item);
    Answer close(FSItem *item);
    Answer reclaim(FSItem *item);
    Answer synchronize();
    // All names of a directory, `room` entries at a time.
    std::vector<std::string> list(FSItem *directory, size_t room, bool withAttributes);

  private:
    Answer unload();

    Strong<FSResource *> resource_;
    Strong<::TavelinFileSystem *> module_;
    Strong<::TavelinVolume *> volume_;
    Strong<FSItem *> root_;
};

FSFileName *fileName(const std::string &bytes);

} // namespace tavelin::test
