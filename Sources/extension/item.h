/// The item that FSKit holds for one file or directory.
#pragma once

#import <FSKit/FSKit.h>

#include "fskit/n_item.hpp"

#include <memory>

/// Immutable. Keeps its C++ counterpart alive, so a request that still comes with an item that was
/// reclaimed meanwhile is answered and not a crash.
@interface NItem : FSItem {
  @private
    std::shared_ptr<tavelin::NItem> _item;
}
- (instancetype)initWithItem:(std::shared_ptr<tavelin::NItem>)item;
@property (nonatomic, readonly) const std::shared_ptr<tavelin::NItem> &item;
@end

namespace tavelin {

/// The front end's item; null for nil and for an item that is none of ours.
[[nodiscard]] std::shared_ptr<NItem> toCore(FSItem *item);

} // namespace tavelin
