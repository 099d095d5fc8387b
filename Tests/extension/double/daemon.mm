#import "extension/double/daemon.h"

#include <gtest/gtest.h>

namespace tavelin::test {

namespace {

// What the reply blocks do with what they get: one call for each shape that FSKit has.
struct Into {
    Answer *answer;

    void operator()(NSError *error) const {
        ++answer->replies;
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
};

FSItemSetAttributesRequest *noAttributes() {
    return made([[FSItemSetAttributesRequest alloc] init]);
}

} // namespace

FSFileName *fileName(const std::string &bytes) {
    return [FSFileName nameWithText:bytes];
}

int Answer::code() const {
    if (replies != 1) {
        return -1;
    }
    if (error.get() == nil) {
        return 0;
    }
    return [error.get().domain isEqualToString:NSPOSIXErrorDomain]
               ? static_cast<int>(error.get().code)
               : -1;
}

std::string Answer::text() const {
    NSData *data = name.get().data;
    return {static_cast<const char *>(data.bytes), data.length};
}

Daemon::Daemon() : module_(made([[::TavelinFileSystem alloc] init])) {}

Answer Daemon::probe(FSResource *resource) {
    Answer answer;
    const Into into{&answer};
    [module() probeResource:resource
               replyHandler:^(FSProbeResult *result, NSError *error) {
                   into(result, error);
               }];
    return answer;
}

Answer Daemon::load(FSResource *resource, NSArray<NSString *> *words) {
    Answer answer;
    const Into into{&answer};
    [module() loadResource:resource
                   options:[FSTaskOptions optionsWithWords:words]
              replyHandler:^(FSVolume *volume, NSError *error) {
                  into(volume, error);
              }];
    resource_ = Strong(resource);
    volume_ = Strong(static_cast<::TavelinVolume *>(answer.object.get()));
    return answer;
}

Answer Daemon::activate(NSArray<NSString *> *words) {
    Answer answer;
    const Into into{&answer};
    [volume() activateWithOptions:[FSTaskOptions optionsWithWords:words]
                     replyHandler:^(FSItem *rootItem, NSError *error) {
                         into(rootItem, error);
                     }];
    root_ = Strong(answer.item());
    return answer;
}

void Daemon::bringUp(FSResource *resource) {
    ASSERT_EQ(load(resource).code(), 0);
    ASSERT_EQ(state(), FSContainerStateReady);
    ASSERT_EQ(activate().code(), 0);
    ASSERT_EQ(state(), FSContainerStateActive);
    Answer mounted;
    const Into into{&mounted};
    [volume() mountWithOptions:[FSTaskOptions optionsWithWords:@[]]
                  replyHandler:^(NSError *error) {
                      into(error);
                  }];
    ASSERT_EQ(mounted.code(), 0);
}

std::vector<Answer> Daemon::abandon() {
    std::vector<Answer> answers{synchronize()};
    Answer unmounted;
    const Into gone{&unmounted};
    [volume() unmountWithReplyHandler:^{
        gone(nil);
    }];
    answers.push_back(unmounted);
    answers.push_back(reclaim(root()));
    Answer deactivated;
    const Into into{&deactivated};
    [volume() deactivateWithOptions:0
                       replyHandler:^(NSError *error) {
                           into(error);
                       }];
    answers.push_back(deactivated);
    answers.push_back(unload());
    return answers;
}

void Daemon::takeDown() {
    for (const Answer &answer : abandon()) {
        EXPECT_EQ(answer.code(), 0);
    }
    EXPECT_EQ(volume().handedItemCount, 0u);
    EXPECT_EQ(state(), FSContainerStateNotReady);
}

Answer Daemon::unload() {
    Answer answer;
    const Into into{&answer};
    [module() unloadResource:resource_.get()
                     options:[FSTaskOptions optionsWithWords:@[]]
                replyHandler:^(NSError *error) {
                    into(error);
                }];
    return answer;
}

Answer Daemon::check(NSArray<NSString *> *words, RecordingTask *task) {
    NSError *error = nil;
    NSProgress *progress = [module() startCheckWithTask:task
                                                options:[FSTaskOptions optionsWithWords:words]
                                                  error:&error];
    Answer answer;
    Into{&answer}(progress, error);
    return answer;
}

Answer Daemon::format() {
    NSError *error = nil;
    NSProgress *progress = [module() startFormatWithTask:made([RecordingTask new])
                                                 options:[FSTaskOptions optionsWithWords:@[]]
                                                   error:&error];
    Answer answer;
    Into{&answer}(progress, error);
    return answer;
}

Answer Daemon::lookup(FSItem *directory, const std::string &name) {
    Answer answer;
    const Into into{&answer};
    [volume() lookupItemNamed:fileName(name)
                  inDirectory:directory
                 replyHandler:^(FSItem *item, FSFileName *itemName, NSError *error) {
                     into(item, itemName, error);
                 }];
    return answer;
}

Answer Daemon::create(FSItem *directory, const std::string &name, FSItemType type) {
    Answer answer;
    const Into into{&answer};
    [volume() createItemNamed:fileName(name)
                         type:type
                  inDirectory:directory
                   attributes:noAttributes()
                 replyHandler:^(FSItem *item, FSFileName *itemName, NSError *error) {
                     into(item, itemName, error);
                 }];
    return answer;
}

Answer Daemon::link(FSItem *directory, const std::string &name, const std::string &target) {
    Answer answer;
    const Into into{&answer};
    [volume() createSymbolicLinkNamed:fileName(name)
                          inDirectory:directory
                           attributes:noAttributes()
                         linkContents:fileName(target)
                         replyHandler:^(FSItem *item, FSFileName *itemName, NSError *error) {
                             into(item, itemName, error);
                         }];
    return answer;
}

Answer Daemon::hardLink(FSItem *item, FSItem *directory, const std::string &name) {
    Answer answer;
    const Into into{&answer};
    [volume() createLinkToItem:item
                         named:fileName(name)
                   inDirectory:directory
                  replyHandler:^(FSFileName *linkName, NSError *error) {
                      into(linkName, error);
                  }];
    return answer;
}

Answer Daemon::remove(FSItem *item, FSItem *directory, const std::string &name) {
    Answer answer;
    const Into into{&answer};
    [volume() removeItem:item
                   named:fileName(name)
           fromDirectory:directory
            replyHandler:^(NSError *error) {
                into(error);
            }];
    return answer;
}

Answer Daemon::rename(FSItem *item, FSItem *from, const std::string &name, FSItem *to,
                      const std::string &newName, FSItem *over) {
    Answer answer;
    const Into into{&answer};
    [volume() renameItem:item
             inDirectory:from
                   named:fileName(name)
               toNewName:fileName(newName)
             inDirectory:to
                overItem:over
            replyHandler:^(FSFileName *given, NSError *error) {
                into(given, error);
            }];
    return answer;
}

Answer Daemon::readLink(FSItem *item) {
    Answer answer;
    const Into into{&answer};
    [volume() readSymbolicLink:item
                  replyHandler:^(FSFileName *contents, NSError *error) {
                      into(contents, error);
                  }];
    return answer;
}

Answer Daemon::getAttributes(FSItem *item) {
    Answer answer;
    const Into into{&answer};
    [volume() getAttributes:made([[FSItemGetAttributesRequest alloc] init])
                     ofItem:item
               replyHandler:^(FSItemAttributes *attributes, NSError *error) {
                   into(attributes, error);
               }];
    return answer;
}

// number: the attributes that the volume says it consumed.
Answer Daemon::setSize(FSItem *item, std::uint64_t size) {
    FSItemSetAttributesRequest *request = noAttributes();
    request.size = size;
    request.supportsLimitedXAttrs = YES; // never consumed
    Answer answer;
    const Into into{&answer};
    [volume() setAttributes:request
                     onItem:item
               replyHandler:^(FSItemAttributes *attributes, NSError *error) {
                   into(attributes, error);
               }];
    answer.number = static_cast<std::uint64_t>(request.consumedAttributes);
    return answer;
}

Answer Daemon::write(FSItem *item, const std::string &data, off_t offset) {
    Answer answer;
    const Into into{&answer};
    [volume() writeContents:[NSData dataWithBytes:data.data() length:data.size()]
                     toFile:item
                   atOffset:offset
               replyHandler:^(size_t written, NSError *error) {
                   into(written, error);
               }];
    return answer;
}

Answer Daemon::read(FSItem *item, size_t length, off_t offset) {
    Answer answer;
    const Into into{&answer};
    ByteBuffer *buffer = [ByteBuffer bufferOfLength:length];
    [volume() readFromFile:item
                    offset:offset
                    length:length
                intoBuffer:buffer
              replyHandler:^(size_t count, NSError *error) {
                  into(count, error);
              }];
    answer.object = Strong<id>(buffer);
    return answer;
}

std::string Daemon::readText(FSItem *item, size_t length) {
    const Answer answer = read(item, length);
    EXPECT_EQ(answer.code(), 0);
    return [static_cast<ByteBuffer *>(answer.object.get()) text:answer.number];
}

Answer Daemon::getXattr(FSItem *item, const std::string &name) {
    Answer answer;
    const Into into{&answer};
    [volume() getXattrNamed:fileName(name)
                     ofItem:item
               replyHandler:^(NSData *value, NSError *error) {
                   into(value, error);
               }];
    return answer;
}

Answer Daemon::setXattr(FSItem *item, const std::string &name, NSData *value,
                        FSSetXattrPolicy policy) {
    Answer answer;
    const Into into{&answer};
    [volume() setXattrNamed:fileName(name)
                     toData:value
                     onItem:item
                     policy:policy
               replyHandler:^(NSError *error) {
                   into(error);
               }];
    return answer;
}

Answer Daemon::listXattrs(FSItem *item) {
    Answer answer;
    const Into into{&answer};
    [volume() listXattrsOfItem:item
                  replyHandler:^(NSArray<FSFileName *> *names, NSError *error) {
                      into(names, error);
                  }];
    return answer;
}

Answer Daemon::setVolumeName(const std::string &name) {
    Answer answer;
    const Into into{&answer};
    [volume() setVolumeName:fileName(name)
               replyHandler:^(FSFileName *given, NSError *error) {
                   into(given, error);
               }];
    return answer;
}

Answer Daemon::open(FSItem *item) {
    Answer answer;
    const Into into{&answer};
    [volume() openItem:item
             withModes:FSVolumeOpenModesRead | FSVolumeOpenModesWrite
          replyHandler:^(NSError *error) {
              into(error);
          }];
    return answer;
}

Answer Daemon::close(FSItem *item) {
    Answer answer;
    const Into into{&answer};
    [volume() closeItem:item
           keepingModes:0
           replyHandler:^(NSError *error) {
               into(error);
           }];
    return answer;
}

Answer Daemon::reclaim(FSItem *item) {
    Answer answer;
    const Into into{&answer};
    [volume() reclaimItem:item
             replyHandler:^(NSError *error) {
                 into(error);
             }];
    return answer;
}

Answer Daemon::synchronize() {
    Answer answer;
    const Into into{&answer};
    [volume() synchronizeWithFlags:FSSyncFlagsWait
                      replyHandler:^(NSError *error) {
                          into(error);
                      }];
    return answer;
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
        answer = {};
        const Into into{&answer};
        [volume() enumerateDirectory:directory
                    startingAtCookie:cookie
                            verifier:verifier
                 providingAttributes:wanted
                         usingPacker:packer
                        replyHandler:^(FSDirectoryVerifier current, NSError *error) {
                            into(current, error);
                        }];
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
