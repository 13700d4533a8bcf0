#pragma once

#include <utility>

namespace talvera::korvane {

/// Keeps the node of what was taken out of a table last for what is put in next, so that a table
/// in which things come and go one at a time allocates nothing. For std::unordered_map and
/// std::unordered_set; guarded by what guards the table.
template <class Table>
class SpareNode {
 public:
  /// Takes the element with that key out, if there is one.
  void TakeOut(Table& table, const typename Table::key_type& key) {
    if (auto node = table.extract(key)) node_ = std::move(node);
  }

  /// In a set.
  void PutIn(Table& table, const typename Table::key_type& key) {
    if (!node_) return static_cast<void>(table.insert(key));
    node_.value() = key;
    Insert(table);
  }

  /// In a map, in place of what the key had.
  template <class Value>
  void PutIn(Table& table, const typename Table::key_type& key, const Value& value) {
    if (!node_ || table.count(key) != 0) return static_cast<void>(table[key] = value);
    node_.key() = key;
    node_.mapped() = value;
    Insert(table);
  }

 private:
  /// A node that the table didn't take stays the spare one.
  void Insert(Table& table) { node_ = std::move(table.insert(std::move(node_)).node); }

  typename Table::node_type node_;
};

}  // namespace talvera::korvane
