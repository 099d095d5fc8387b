#import "extension/item.h"

#include <utility>

@implementation NItem

- (instancetype)initWithItem:(std::shared_ptr<tavelin::NItem>)item {
    if ((self = [super init])) {
        _item = std::move(item);
    }
    return self;
}

- (const std::shared_ptr<tavelin::NItem> &)item {
    return _item;
}

@end

namespace tavelin {

std::shared_ptr<NItem> toCore(FSItem *item) {
    if (![item isKindOfClass:[::NItem class]]) {
        return nullptr;
    }
    return static_cast<::NItem *>(item).item;
}

} // namespace tavelin
