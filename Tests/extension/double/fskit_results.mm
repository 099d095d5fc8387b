// The results of macOS 27.0's requests. As FSKit's, an initialiser answers nil unless everything
// that is required is there.
#import "extension/double/value_class.h"

using tavelin::made;

@implementation FSContext
WITH_STATE
NUMBER(NSInteger, realUserID, RealUserID)
NUMBER(NSInteger, effectiveUserID, EffectiveUserID)
+ (instancetype)contextOfUser:(NSInteger)user {
    FSContext *context = made([[FSContext alloc] initDouble]);
    [context setRealUserID:user];
    [context setEffectiveUserID:user];
    return context;
}
@end

@implementation FSFreeSpace
WITH_STATE
WITH_PLAIN_INIT
NUMBER(uint64_t, bytes, Bytes)
- (void)populateWithBytes:(uint64_t)bytes {
    [self setBytes:bytes];
}
@end

@implementation FSVolumeHandlerResult
WITH_STATE
OBJECT(id, object, Object)
OBJECT(FSFileName *, name, Name)
OBJECT(FSItemAttributes *, itemAttributes, ItemAttributes)
OBJECT(FSItemAttributes *, directoryAttributes, DirectoryAttributes)
OBJECT(FSItemAttributes *, destinationAttributes, DestinationAttributes)
OBJECT(FSFreeSpace *, freeSpace, FreeSpace)
NUMBER(uint64_t, number, Number)
+ (FSItemGetAttributesRequest *)requestedAttributes {
    FSItemGetAttributesRequest *request = made([[FSItemGetAttributesRequest alloc] init]);
    // Seen on 27.0: everything up to the birth time, and a bit that no header names.
    request.wantedAttributes = static_cast<FSItemAttribute>(0x4000000000003fff);
    return request;
}
- (instancetype)initWithItem:(FSItemAttributes *)item {
    self = [self initDouble];
    return [self takeItem:item directory:nil];
}
// Nil, and this object is released, when attributes lack something.
- (instancetype)takeItem:(FSItemAttributes *)item directory:(FSItemAttributes *)directory {
    const FSItemAttribute wanted = [[self class] requestedAttributes].wantedAttributes;
    for (FSItemAttributes *attributes : {item, directory}) {
        for (int bit = 0; attributes != nil && bit < 18; ++bit) {
            const auto attribute = static_cast<FSItemAttribute>(1 << bit);
            if ((wanted & attribute) != 0 && ![attributes isValid:attribute]) {
                [self release];
                return nil;
            }
        }
    }
    [self setItemAttributes:item];
    [self setDirectoryAttributes:directory];
    return self;
}
- (instancetype)initWithObject:(id)object {
    self = [self initDouble];
    [self setObject:object];
    if (object == nil) {
        [self release];
        return nil;
    }
    return self;
}
@end

@implementation FSLookupItemResult
- (instancetype)initWithFoundItem:(FSItem *)foundItem
                         itemName:(FSFileName *)itemName
                   itemAttributes:(FSItemAttributes *)itemAttributes {
    self = [self initWithObject:foundItem];
    [self setName:itemName];
    return [self takeItem:itemAttributes directory:nil];
}
@end

@implementation FSCreateItemResult
- (instancetype)initWithNewItem:(FSItem *)newItem
                    newItemName:(FSFileName *)newItemName
              newItemAttributes:(FSItemAttributes *)newItemAttributes
            directoryAttributes:(FSItemAttributes *)directoryAttributes
                      freeSpace:(FSFreeSpace *)freeSpace {
    self = [self initWithObject:newItem];
    [self setName:newItemName];
    [self setFreeSpace:freeSpace];
    return [self takeItem:newItemAttributes directory:directoryAttributes];
}
@end

@implementation FSCreateSymlinkResult
@end

@implementation FSCreateLinkResult
- (instancetype)initWithLinkName:(FSFileName *)linkName
                  linkAttributes:(FSItemAttributes *)linkAttributes
             directoryAttributes:(FSItemAttributes *)directoryAttributes
                       freeSpace:(FSFreeSpace *)freeSpace {
    self = [self initDouble];
    [self setName:linkName];
    [self setFreeSpace:freeSpace];
    return [self takeItem:linkAttributes directory:directoryAttributes];
}
@end

@implementation FSRenameItemResult
- (instancetype)initWithNewName:(FSFileName *)newName
             renamedItemAttributes:(FSItemAttributes *)renamedItemAttributes
         sourceDirectoryAttributes:(FSItemAttributes *)sourceDirectoryAttributes
    destinationDirectoryAttributes:(FSItemAttributes *)destinationDirectoryAttributes
                overItemAttributes:(FSItemAttributes *)overItemAttributes
                         freeSpace:(FSFreeSpace *)freeSpace {
    self = [self initDouble];
    [self setName:newName];
    [self setFreeSpace:freeSpace];
    [self setNumber:overItemAttributes != nil ? overItemAttributes.linkCount : ~0u];
    [self setDestinationAttributes:destinationDirectoryAttributes];
    self = [self takeItem:destinationDirectoryAttributes directory:overItemAttributes];
    return [self takeItem:renamedItemAttributes directory:sourceDirectoryAttributes];
}
@end

@implementation FSRemoveItemResult
- (instancetype)initWithItemAttributes:(FSItemAttributes *)itemAttributes
                   directoryAttributes:(FSItemAttributes *)directoryAttributes
                             freeSpace:(FSFreeSpace *)freeSpace {
    self = [self initDouble];
    [self setFreeSpace:freeSpace];
    return [self takeItem:itemAttributes directory:directoryAttributes];
}
@end

@implementation FSGetAttributesResult
- (instancetype)initWithAttributes:(FSItemAttributes *)attributes {
    self = [self initWithItem:attributes];
    [self setObject:attributes];
    return self;
}
@end

@implementation FSSetAttributesResult
- (instancetype)initWithAttributes:(FSItemAttributes *)attributes
                         freeSpace:(FSFreeSpace *)freeSpace {
    self = [self initWithItem:attributes];
    [self setObject:attributes];
    [self setFreeSpace:freeSpace];
    return self;
}
@end

@implementation FSReadSymlinkResult
- (instancetype)initWithContents:(FSFileName *)contents
               symlinkAttributes:(FSItemAttributes *)symlinkAttributes {
    self = [self initWithItem:symlinkAttributes];
    [self setName:contents];
    return self;
}
@end

@implementation FSReadFileResult
- (instancetype)initWithBytesRead:(size_t)bytesRead
                   itemAttributes:(FSItemAttributes *)itemAttributes {
    self = [self initWithItem:itemAttributes];
    [self setNumber:bytesRead];
    return self;
}
@end

@implementation FSWriteFileResult
- (instancetype)initWithBytesWritten:(size_t)bytesWritten
                      itemAttributes:(FSItemAttributes *)itemAttributes
                           freeSpace:(FSFreeSpace *)freeSpace {
    self = [self initWithItem:itemAttributes];
    [self setNumber:bytesWritten];
    [self setFreeSpace:freeSpace];
    return self;
}
@end

@implementation FSPreallocateResult
- (instancetype)initWithBytesAllocated:(size_t)bytesAllocated
                        itemAttributes:(FSItemAttributes *)itemAttributes
                             freeSpace:(FSFreeSpace *)freeSpace {
    self = [self initWithItem:itemAttributes];
    [self setNumber:bytesAllocated];
    [self setFreeSpace:freeSpace];
    return self;
}
@end

// Those that carry one value.
#define RESULT_OF(Class, initWithValue, type, set)                                                 \
    @implementation Class                                                                          \
    -(instancetype)initWithValue : (type)value {                                                   \
        self = [self initDouble];                                                                  \
        [self set:value];                                                                          \
        return self;                                                                               \
    }                                                                                              \
    @end
#define RESULT_OF_OBJECT(Class, initWithValue, type)                                               \
    @implementation Class                                                                          \
    -(instancetype)initWithValue : (type)value {                                                   \
        return [self initWithObject:value];                                                        \
    }                                                                                              \
    @end
RESULT_OF_OBJECT(FSActivateResult, initWithRootItem, FSItem *)
RESULT_OF_OBJECT(FSGetXattrResult, initWithXattrValue, NSData *)
RESULT_OF_OBJECT(FSListXattrsResult, initWithXattrNames, NSArray<FSFileName *> *)
RESULT_OF(FSEnumerateDirectoryResult, initWithVerifier, FSDirectoryVerifier, setNumber)
RESULT_OF(FSSeekRegionResult, initWithReturnedOffset, off_t, setNumber)
RESULT_OF(FSDeactivateItemResult, initWithFreeSpace, FSFreeSpace *, setFreeSpace)
RESULT_OF(FSSetXattrResult, initWithFreeSpace, FSFreeSpace *, setFreeSpace)
RESULT_OF(FSVolumeRenameResult, initWithNewName, FSFileName *, setName)
