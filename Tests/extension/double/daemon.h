// Plays fskitd towards the binding: makes the module, sends it requests in FSKit's order, counts
// the replies and holds the items it is handed, as the kernel would.
#pragma once

#import "extension/file_system.h"
#import "extension/handler_volume.h"
#import "extension/volume.h"

#import "extension/double/fskit_double.h"

#include "extension/memory.hpp"

#include <atomic>
#include <map>
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
    // Beside the result itself, from macOS 27.0 on.
    Strong<FSItemAttributes *> itemAttributes;
    Strong<FSItemAttributes *> directoryAttributes;
    Strong<FSItemAttributes *> destinationAttributes;
    Strong<FSFreeSpace *> freeSpace;

    bool ok() const { return replies == 1 && error.get() == nil; }
    // The POSIX code, 0 for success; -1 for another domain or a wrong number of replies.
    int code() const;
    FSItem *item() const { return static_cast<FSItem *>(object.get()); }
    FSItemAttributes *attributes() const { return static_cast<FSItemAttributes *>(object.get()); }
    std::string text() const; // of the name
};

template<typename... Arguments>
struct Reply;

// The releases that differ in what FSKit asks for: 26.0 emulates the removal of open files, 27.0
// has the handler protocols and -[FSItem tryReclaimWithBlock:].
enum class Release { k15_4, k26_0, k27_0 };

class Daemon {
  public:
    explicit Daemon(Release release = Release::k27_0);
    ~Daemon() { [FSItem setHasTryReclaim:hadTryReclaim_]; }
    Daemon(const Daemon &) = delete;
    Daemon &operator=(const Daemon &) = delete;

    ::TavelinFileSystem *module() const { return module_.get(); }
    ::TavelinServedVolume *volume() const { return volume_.get(); }
    Release release() const { return release_; }
    bool hasHandlers() const { return release_ == Release::k27_0; }
    // Sent to the module and its volume so far.
    size_t requests() const { return requests_; }
    FSItem *root() const { return root_.get(); }
    FSContainerState state() const { return module().containerStatus.state; }

    Answer probe(FSResource *resource);
    Answer load(FSResource *resource);
    Answer activate(NSArray<NSString *> *words = @[]);
    // Loads, activates and mounts; fails the test when it cannot.
    void bringUp(FSResource *resource, NSArray<NSString *> *words = @[]);
    // Synchronises, unmounts, reclaims what is held, deactivates and unloads; checks each answer.
    void takeDown();
    Answer unmount();
    Answer deactivate();
    Answer unload();
    // takeDown without an opinion on the answers, which are returned in order.
    std::vector<Answer> abandon();
    Answer check(NSArray<NSString *> *words, RecordingTask *task);
    Answer format();

    Answer lookup(FSItem *directory, const std::string &name);
    // number: the attributes that the volume says it consumed; of setSize() too.
    Answer create(FSItem *directory, const std::string &name, FSItemType type = FSItemTypeFile);
    Answer link(FSItem *directory, const std::string &name, const std::string &target);
    Answer hardLink(FSItem *item, FSItem *directory, const std::string &name);
    // From macOS 26.0 on an open file is renamed instead, to a name of FSKit's own.
    Answer remove(FSItem *item, FSItem *directory, const std::string &name);
    Answer rename(FSItem *item, FSItem *from, const std::string &name, FSItem *to,
                  const std::string &newName, FSItem *over = nil);
    Answer readLink(FSItem *item);
    Answer getAttributes(FSItem *item);
    Answer setSize(FSItem *item, std::uint64_t size);
    Answer write(FSItem *item, const std::string &data);
    // number: the count read; object: the ByteBuffer.
    Answer read(FSItem *item, size_t length);
    // number: the bytes that were reserved behind the file's space.
    Answer preallocate(FSItem *item, size_t length, FSPreallocateFlags flags);
    // number: where the region is. From macOS 27.0 on.
    Answer seek(FSItem *item, std::uint64_t offset, FSSeekRegion region);
    std::string readText(FSItem *item, size_t length = 1 << 20);
    Answer getXattr(FSItem *item, const std::string &name);
    Answer setXattr(FSItem *item, const std::string &name, NSData *value,
                    FSSetXattrPolicy policy = FSSetXattrPolicyAlwaysSet);
    Answer listXattrs(FSItem *item);
    Answer setVolumeName(const std::string &name);
    Answer open(FSItem *item);
    // The last close. Removes an open file that lost its name, where FSKit has put that off.
    Answer close(FSItem *item);
    Answer deactivateItem(FSItem *item);
    Answer reclaim(FSItem *item);
    Answer synchronize();
    // The free space, as FSKit asks for it.
    std::uint64_t statistics();
    // number: the verifier.
    Answer listPage(FSItem *directory, FSDirectoryCookie cookie, FSDirectoryVerifier verifier,
                    bool withAttributes, ListPacker *packer);
    // All names of a directory, `room` entries at a time.
    std::vector<std::string> list(FSItem *directory, size_t room, bool withAttributes);

  private:
    Answer removeName(FSItem *item, FSItem *directory, const std::string &name);
    // The volume as each generation of requests sees it.
    ::TavelinVolume *first() const { return static_cast<::TavelinVolume *>(volume()); }
    ::TavelinHandlerVolume *handlers() const {
        return static_cast<::TavelinHandlerVolume *>(volume());
    }
    // Sends a request whose reply block takes these arguments, and answers what it got.
    template<typename... Arguments, typename Send>
    Answer ask(Reply<Arguments...>, const Send &send);

    const Release release_;
    const BOOL hadTryReclaim_;
    std::atomic<size_t> requests_ = 0;
    Strong<FSContext *> context_;
    Strong<FSResource *> resource_;
    Strong<::TavelinFileSystem *> module_;
    Strong<::TavelinServedVolume *> volume_;
    Strong<FSItem *> root_;
    // Open items, each with the directory of its name when that is FSKit's own.
    std::map<FSItem *, FSItem *> open_;
};

FSFileName *fileName(const std::string &bytes);

} // namespace tavelin::test
