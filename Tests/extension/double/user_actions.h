// What a user does, as the requests that FSKit makes of it.
//
// From macOS 27.0 on an answer carries the attributes of what has changed and the free space. What
// it carries is what earlier releases ask for afterwards, one request each: of a lookup, a read and
// a write the attributes of the item; of a creation and a rename also those of each directory; of
// everything that changes the volume the free space.
#pragma once

#import "extension/double/daemon.h"

#include <initializer_list>
#include <string>

namespace tavelin::test {

class UserActions {
  public:
    // The volume is active. What it has FSKit leave out is not sent: opens and closes, and that an
    // item is not used any more.
    UserActions(Daemon& daemon, bool tellsUse) : daemon_(daemon), tellsUse_(tellsUse) {}

    // Opens a file in the root that is not known yet, reads it and closes it.
    void openAndRead(const std::string& name);
    // Saves a document as most programs do: to a new file with the old one's attributes, which then
    // takes the old one's place.
    void save(const std::string& name);
    // Lists a directory with attributes, as `ls -l` and the Finder do.
    void list(FSItem* directory);
    // Copies directories of files into the root, with times and one extended attribute each.
    void copyTree(int directories, int filesEach);

    // Looks a name up that is not known yet.
    Answer lookup(FSItem* directory, const std::string& name);
    Answer create(FSItem* directory, const std::string& name, FSItemType type = FSItemTypeFile);
    void open(FSItem* item);
    void close(FSItem* item);
    // Opens a file, writes it and closes it.
    void write(FSItem* item, const std::string& content);
    // To a name that is free.
    void rename(FSItem* item, FSItem* directory, const std::string& name,
                const std::string& newName);

  private:
    void copyDirectory(const std::string& name, int files);
    void setTimes(FSItem* item);
    // What FSKit asks for after an answer that carries none of it.
    void askAfterwards(std::initializer_list<FSItem*> items, bool freeSpace);

    Daemon& daemon_;
    const bool tellsUse_;
};

} // namespace tavelin::test
