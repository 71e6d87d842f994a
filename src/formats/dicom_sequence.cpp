// The items of sequences and of encapsulated values.
#include "formats/dicom_internal.hpp"
#include "system/bytes.hpp"

#include <utility>

namespace quib {

namespace {

struct ItemHeader {
  std::uint16_t group, number;
  std::uint32_t length;
};

ItemHeader item_header(unsigned char const* p, bool little) {
  return {detail::load<std::uint16_t>(p, little), detail::load<std::uint16_t>(p + 2, little),
          detail::load<std::uint32_t>(p + 4, little)};
}

}  // namespace

int Dicom::read_items(Tag tag, std::vector<Dicom>& items) const {
  items.clear();
  std::vector<unsigned char> const* value = find(tag);
  if (value == nullptr || info.depth >= kMaxDepth) return -1;
  const std::uint16_t type = get_type(tag);
  bool const unknown = type == detail::vr('U', 'N');
  if (type != detail::vr('S', 'Q') && !unknown && type != 0) return -1;
  bool const implicit = unknown || info.implicit;
  bool const little = unknown || (tag.get_group() == 2 ? info.meta_little : info.little);
  unsigned char const* data = value->data();
  const std::size_t size = value->size();
  if (size >= 8) {
    const ItemHeader first = item_header(data, little);
    if (first.group != detail::kItemGroup || first.number != detail::kItem) return -1;
  } else if (size != 0) {
    return -1;
  }

  std::size_t at = 0;
  while (at < size) {
    Dicom item;
    item.info.how = info.how;
    item.info.depth = info.depth + 1;
    item.info.meta_little = little;
    item.info.implicit = implicit;
    item.info.little = little;
    item.info.syntax = info.syntax;
    item.info.charset = info.charset;
    item.info.stop = at;
    const ItemHeader head = size - at >= 8 ? item_header(data + at, little) : ItemHeader{0, 0, 0};
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
    detail::DicomParts parts;
    parts.info = item.info;
    parts.info.stop = 0;
    detail::read_data_set(content, length, parts);
    parts.info.complete = parts.info.complete && whole;
    item.table.swap(parts.table);
    item.entries.swap(parts.entries);
    item.info = std::move(parts.info);
    bool const complete = item.info.complete;
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
  bool const little = tag.get_group() == 2 ? info.meta_little : info.little;
  const std::size_t size = value->size();
  std::size_t at = 0;
  while (size - at >= 8) {
    const ItemHeader head = item_header(value->data() + at, little);
    if (head.group != detail::kItemGroup || head.number != detail::kItem) break;
    if (head.length > size - at - 8) break;  // a cut item ends the list
    fragments.emplace_back(at + 8, head.length);
    at += 8 + std::size_t(head.length);
  }
  if (fragments.empty() && size != 0) return -1;
  return int(fragments.size());
}

}  // namespace quib
