// The items of sequences and of encapsulated values.
#include "formats/dicom_internal.hpp"
#include "system/bytes.hpp"

#include <utility>

namespace quib {

namespace {

struct item_header {
  std::uint16_t group, number;
  std::uint32_t length;
};

item_header load_item_header(unsigned char const* p, bool little) {
  return {detail::load<std::uint16_t>(p, little), detail::load<std::uint16_t>(p + 2, little),
          detail::load<std::uint32_t>(p + 4, little)};
}

}  // namespace

int Dicom::read_items(Tag tag, std::vector<Dicom>& items) const {
  items.clear();
  std::vector<unsigned char> const* value = find(tag);
  if (value == nullptr || info_.depth >= kMaxDepth) return -1;
  const std::uint16_t type = get_type(tag);
  bool const unknown = type == detail::vr('U', 'N');
  if (type != detail::vr('S', 'Q') && !unknown && type != 0) return -1;
  bool const implicit = unknown || info_.implicit;
  bool const little = unknown || (tag.get_group() == 2 ? info_.meta_little : info_.little);
  unsigned char const* data = value->data();
  const std::size_t size = value->size();
  if (size >= 8) {
    const item_header first = load_item_header(data, little);
    if (first.group != detail::kItemGroup || first.number != detail::kItem) return -1;
  } else if (size != 0) {
    return -1;
  }

  std::size_t at = 0;
  while (at < size) {
    Dicom item;
    item.info_.how = info_.how;
    item.info_.depth = info_.depth + 1;
    item.info_.meta_little = little;
    item.info_.implicit = implicit;
    item.info_.little = little;
    item.info_.syntax = info_.syntax;
    item.info_.charset = info_.charset;
    item.info_.stop = at;
    const item_header head =
        size - at >= 8 ? load_item_header(data + at, little) : item_header{0, 0, 0};
    if (head.group != detail::kItemGroup || head.number != detail::kItem) {
      items.push_back(std::move(item));  // damage before an item header: an empty, cut item
      break;
    }
    unsigned char const* content = data + at + 8;
    const std::size_t room = size - at - 8;
    std::size_t length = head.length;
    bool whole = true;
    if (head.length == detail::kUndefinedLength) {
      whole = detail::find_item_end(content, room, implicit, little, length);
      if (!whole) length = room;
    } else if (length > room) {
      length = room;
      whole = false;
    }
    detail::dicom_parts parts;
    parts.info = item.info_;
    parts.info.stop = 0;
    detail::read_data_set(content, length, parts);
    parts.info.complete = parts.info.complete && whole;
    item.table_.swap(parts.table);
    item.entries_.swap(parts.entries);
    item.info_ = std::move(parts.info);
    bool const complete = item.info_.complete;
    items.push_back(std::move(item));
    if (!complete) break;
    at += 8 + length + (head.length == detail::kUndefinedLength ? 8 : 0);
  }
  return int(items.size());
}

int Dicom::get_fragments(Tag tag,
                         std::vector<std::pair<std::size_t, std::size_t>>& fragments) const {
  fragments.clear();
  std::vector<unsigned char> const* value = find(tag);
  if (value == nullptr) return -1;
  bool const little = tag.get_group() == 2 ? info_.meta_little : info_.little;
  const std::size_t size = value->size();
  std::size_t at = 0;
  while (size - at >= 8) {
    const item_header head = load_item_header(value->data() + at, little);
    if (head.group != detail::kItemGroup || head.number != detail::kItem) break;
    if (head.length > size - at - 8) break;  // a cut item ends the list
    fragments.emplace_back(at + 8, head.length);
    at += 8 + std::size_t(head.length);
  }
  if (fragments.empty() && size != 0) return -1;
  return int(fragments.size());
}

}  // namespace quib
