// Requests to an active volume.
#import "extension/double/asking.h"

#include <gtest/gtest.h>

namespace tavelin::test {

namespace {

// How FSKit calls an open file that was removed is not known.
constexpr const char *kEmulatedName = ".removed-while-open";

FSItemSetAttributesRequest *noAttributes() {
    return made([[FSItemSetAttributesRequest alloc] init]);
}

} // namespace

Answer Daemon::lookup(FSItem *directory, const std::string &name) {
    if (hasHandlers()) {
        return ask<FSLookupItemResult *, NSError *>([&](auto reply) {
            [handlers() lookupItemNamed:fileName(name)
                            inDirectory:directory
                                context:context_.get()
                           replyHandler:reply];
        });
    }
    return ask<FSItem *, FSFileName *, NSError *>([&](auto reply) {
        [first() lookupItemNamed:fileName(name) inDirectory:directory replyHandler:reply];
    });
}

Answer Daemon::create(FSItem *directory, const std::string &name, FSItemType type) {
    if (hasHandlers()) {
        return ask<FSCreateItemResult *, NSError *>([&](auto reply) {
            [handlers() createItemNamed:fileName(name)
                                   type:type
                            inDirectory:directory
                             attributes:noAttributes()
                                context:context_.get()
                           replyHandler:reply];
        });
    }
    return ask<FSItem *, FSFileName *, NSError *>([&](auto reply) {
        [first() createItemNamed:fileName(name)
                            type:type
                     inDirectory:directory
                      attributes:noAttributes()
                    replyHandler:reply];
    });
}

Answer Daemon::link(FSItem *directory, const std::string &name, const std::string &target) {
    if (hasHandlers()) {
        return ask<FSCreateSymlinkResult *, NSError *>([&](auto reply) {
            [handlers() createSymbolicLinkNamed:fileName(name)
                                    inDirectory:directory
                                     attributes:noAttributes()
                                   linkContents:fileName(target)
                                        context:context_.get()
                                   replyHandler:reply];
        });
    }
    return ask<FSItem *, FSFileName *, NSError *>([&](auto reply) {
        [first() createSymbolicLinkNamed:fileName(name)
                             inDirectory:directory
                              attributes:noAttributes()
                            linkContents:fileName(target)
                            replyHandler:reply];
    });
}

Answer Daemon::hardLink(FSItem *item, FSItem *directory, const std::string &name) {
    if (hasHandlers()) {
        return ask<FSCreateLinkResult *, NSError *>([&](auto reply) {
            [handlers() createLinkToItem:item
                                   named:fileName(name)
                             inDirectory:directory
                                 context:context_.get()
                            replyHandler:reply];
        });
    }
    return ask<FSFileName *, NSError *>([&](auto reply) {
        [first() createLinkToItem:item
                            named:fileName(name)
                      inDirectory:directory
                     replyHandler:reply];
    });
}

Answer Daemon::remove(FSItem *item, FSItem *directory, const std::string &name) {
    const auto opened = open_.find(item);
    if (opened == open_.end() || release() == Release::k15_4) {
        return removeName(item, directory, name);
    }
    opened->second = directory;
    return rename(item, directory, name, directory, kEmulatedName);
}

Answer Daemon::removeName(FSItem *item, FSItem *directory, const std::string &name) {
    if (hasHandlers()) {
        return ask<FSRemoveItemResult *, NSError *>([&](auto reply) {
            [handlers() removeItem:item
                             named:fileName(name)
                     fromDirectory:directory
                           context:context_.get()
                      replyHandler:reply];
        });
    }
    return ask<NSError *>([&](auto reply) {
        [first() removeItem:item named:fileName(name) fromDirectory:directory replyHandler:reply];
    });
}

Answer Daemon::rename(FSItem *item, FSItem *from, const std::string &name, FSItem *to,
                      const std::string &newName, FSItem *over) {
    if (hasHandlers()) {
        return ask<FSRenameItemResult *, NSError *>([&](auto reply) {
            [handlers() renameItem:item
                       inDirectory:from
                             named:fileName(name)
                         toNewName:fileName(newName)
                       inDirectory:to
                          overItem:over
                           context:context_.get()
                      replyHandler:reply];
        });
    }
    return ask<FSFileName *, NSError *>([&](auto reply) {
        [first() renameItem:item
                inDirectory:from
                      named:fileName(name)
                  toNewName:fileName(newName)
                inDirectory:to
                   overItem:over
               replyHandler:reply];
    });
}

Answer Daemon::readLink(FSItem *item) {
    if (hasHandlers()) {
        return ask<FSReadSymlinkResult *, NSError *>([&](auto reply) {
            [handlers() readSymbolicLink:item context:context_.get() replyHandler:reply];
        });
    }
    return ask<FSFileName *, NSError *>(
        [&](auto reply) { [first() readSymbolicLink:item replyHandler:reply]; });
}

Answer Daemon::getAttributes(FSItem *item) {
    FSItemGetAttributesRequest *wanted = made([[FSItemGetAttributesRequest alloc] init]);
    if (hasHandlers()) {
        return ask<FSGetAttributesResult *, NSError *>([&](auto reply) {
            [handlers() getAttributes:wanted ofItem:item context:context_.get() replyHandler:reply];
        });
    }
    return ask<FSItemAttributes *, NSError *>(
        [&](auto reply) { [first() getAttributes:wanted ofItem:item replyHandler:reply]; });
}

// number: the attributes that the volume says it consumed.
Answer Daemon::setSize(FSItem *item, std::uint64_t size) {
    FSItemSetAttributesRequest *request = noAttributes();
    request.size = size;
    request.supportsLimitedXAttrs = YES; // never consumed
    Answer answer = hasHandlers() ? ask<FSSetAttributesResult *, NSError *>([&](auto reply) {
        [handlers() setAttributes:request onItem:item context:context_.get() replyHandler:reply];
    })
                                  : ask<FSItemAttributes *, NSError *>([&](auto reply) {
                                        [first() setAttributes:request
                                                        onItem:item
                                                  replyHandler:reply];
                                    });
    answer.number = static_cast<std::uint64_t>(request.consumedAttributes);
    return answer;
}

Answer Daemon::write(FSItem *item, const std::string &data) {
    NSData *bytes = [NSData dataWithBytes:data.data() length:data.size()];
    if (hasHandlers()) {
        return ask<FSWriteFileResult *, NSError *>([&](auto reply) {
            [handlers() writeContents:bytes toFile:item atOffset:0 replyHandler:reply];
        });
    }
    return ask<size_t, NSError *>([&](auto reply) {
        [first() writeContents:bytes toFile:item atOffset:0 replyHandler:reply];
    });
}

Answer Daemon::read(FSItem *item, size_t length) {
    ByteBuffer *buffer = [ByteBuffer bufferOfLength:length];
    Answer answer = hasHandlers() ? ask<FSReadFileResult *, NSError *>([&](auto reply) {
        [handlers() readFromFile:item offset:0 length:length intoBuffer:buffer replyHandler:reply];
    })
                                  : ask<size_t, NSError *>([&](auto reply) {
                                        [first() readFromFile:item
                                                       offset:0
                                                       length:length
                                                   intoBuffer:buffer
                                                 replyHandler:reply];
                                    });
    answer.object = Strong<id>(buffer);
    return answer;
}

Answer Daemon::preallocate(FSItem *item, size_t length, FSPreallocateFlags flags) {
    flags |= FSPreallocateFlagsFromEOF; // as on every call of FSKit at present
    if (hasHandlers()) {
        return ask<FSPreallocateResult *, NSError *>([&](auto reply) {
            [handlers() preallocateSpaceForItem:item
                                       atOffset:0
                                         length:length
                                          flags:flags
                                        context:context_.get()
                                   replyHandler:reply];
        });
    }
    return ask<size_t, NSError *>([&](auto reply) {
        [first() preallocateSpaceForItem:item
                                atOffset:0
                                  length:length
                                   flags:flags
                            replyHandler:reply];
    });
}

Answer Daemon::seek(FSItem *item, std::uint64_t offset, FSSeekRegion region) {
    return ask<FSSeekRegionResult *, NSError *>([&](auto reply) {
        [handlers() seekWithinItem:item
                        fromOffset:static_cast<off_t>(offset)
                            region:region
                           context:context_.get()
                      replyHandler:reply];
    });
}

std::string Daemon::readText(FSItem *item, size_t length) {
    const Answer answer = read(item, length);
    EXPECT_EQ(answer.code(), 0);
    return [static_cast<ByteBuffer *>(answer.object.get()) text:answer.number];
}

Answer Daemon::getXattr(FSItem *item, const std::string &name) {
    if (hasHandlers()) {
        return ask<FSGetXattrResult *, NSError *>([&](auto reply) {
            [handlers() getXattrNamed:fileName(name)
                               ofItem:item
                              context:context_.get()
                         replyHandler:reply];
        });
    }
    return ask<NSData *, NSError *>(
        [&](auto reply) { [first() getXattrNamed:fileName(name) ofItem:item replyHandler:reply]; });
}

Answer Daemon::setXattr(FSItem *item, const std::string &name, NSData *value,
                        FSSetXattrPolicy policy) {
    if (hasHandlers()) {
        return ask<FSSetXattrResult *, NSError *>([&](auto reply) {
            [handlers() setXattrNamed:fileName(name)
                               toData:value
                               onItem:item
                               policy:policy
                              context:context_.get()
                         replyHandler:reply];
        });
    }
    return ask<NSError *>([&](auto reply) {
        [first() setXattrNamed:fileName(name)
                        toData:value
                        onItem:item
                        policy:policy
                  replyHandler:reply];
    });
}

Answer Daemon::listXattrs(FSItem *item) {
    if (hasHandlers()) {
        return ask<FSListXattrsResult *, NSError *>([&](auto reply) {
            [handlers() listXattrsOfItem:item context:context_.get() replyHandler:reply];
        });
    }
    return ask<NSArray<FSFileName *> *, NSError *>(
        [&](auto reply) { [first() listXattrsOfItem:item replyHandler:reply]; });
}

Answer Daemon::setVolumeName(const std::string &name) {
    if (hasHandlers()) {
        return ask<FSVolumeRenameResult *, NSError *>([&](auto reply) {
            [handlers() setVolumeName:fileName(name) context:context_.get() replyHandler:reply];
        });
    }
    return ask<FSFileName *, NSError *>(
        [&](auto reply) { [first() setVolumeName:fileName(name) replyHandler:reply]; });
}

Answer Daemon::open(FSItem *item) {
    open_.emplace(item, nil);
    if (hasHandlers()) {
        return ask<NSError *>([&](auto reply) {
            [handlers() openItem:item
                       withModes:FSVolumeOpenModesRead | FSVolumeOpenModesWrite
                         context:context_.get()
                    replyHandler:reply];
        });
    }
    return ask<NSError *>([&](auto reply) {
        [first() openItem:item
                withModes:FSVolumeOpenModesRead | FSVolumeOpenModesWrite
             replyHandler:reply];
    });
}

Answer Daemon::close(FSItem *item) {
    Answer closed = ask<NSError *>([&](auto reply) {
        if (hasHandlers()) {
            [handlers() closeItem:item keepingModes:0 context:context_.get() replyHandler:reply];
        } else {
            [first() closeItem:item keepingModes:0 replyHandler:reply];
        }
    });
    const auto opened = open_.extract(item);
    return opened && opened.mapped() != nil ? removeName(item, opened.mapped(), kEmulatedName)
                                            : closed;
}

Answer Daemon::deactivateItem(FSItem *item) {
    if (hasHandlers()) {
        return ask<FSDeactivateItemResult *, NSError *>([&](auto reply) {
            [handlers() deactivateItem:item context:context_.get() replyHandler:reply];
        });
    }
    return ask<NSError *>([&](auto reply) { [first() deactivateItem:item replyHandler:reply]; });
}

Answer Daemon::reclaim(FSItem *item) {
    return ask<NSError *>([&](auto reply) { [volume() reclaimItem:item replyHandler:reply]; });
}

std::uint64_t Daemon::statistics() {
    ++requests_;
    return volume().volumeStatistics.freeBytes;
}

std::vector<std::string> Daemon::list(FSItem *directory, size_t room, bool withAttributes) {
    std::vector<std::string> names;
    FSItemGetAttributesRequest *wanted =
        withAttributes ? made([[FSItemGetAttributesRequest alloc] init]) : nil;
    Answer answer;
    FSDirectoryCookie cookie = 0;
    for (bool more = true; more;) {
        ListPacker *packer = [ListPacker packerWithRoom:room];
        const FSDirectoryVerifier verifier = answer.number;
        answer = hasHandlers() ? ask<FSEnumerateDirectoryResult *, NSError *>([&](auto reply) {
            [handlers() enumerateDirectory:directory
                          startingAtCookie:cookie
                                  verifier:verifier
                       providingAttributes:wanted
                               usingPacker:packer
                                   context:context_.get()
                              replyHandler:reply];
        })
                               : ask<FSDirectoryVerifier, NSError *>([&](auto reply) {
                                     [first() enumerateDirectory:directory
                                                startingAtCookie:cookie
                                                        verifier:verifier
                                             providingAttributes:wanted
                                                     usingPacker:packer
                                                    replyHandler:reply];
                                 });
        EXPECT_EQ(answer.code(), 0);
        for (const auto &entry : packer->_entries) {
            EXPECT_EQ(entry.hasAttributes, withAttributes);
            names.push_back(entry.name);
            cookie = entry.nextCookie;
        }
        more = !packer->_entries.empty();
    }
    return names;
}

} // namespace tavelin::test
