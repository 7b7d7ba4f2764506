// Layout of the linked list, for code that walks one without moving its cursor.
#pragma once

#include <kel/array.h>

namespace kel::internal {

struct ListNode {
  void* element;
  ListNode* next;
  ListNode* previous;  // of the first node: the list object
};

}  // namespace kel::internal

/// The node before the first one, and what belongs to the list as a whole. All zero is an empty
/// list too: a null tail is looked up when it is needed.
struct kelList {
  kel::internal::ListNode head;     // element and previous are always null
  kel::internal::ListNode* tail;    // the last node; `head` while the list is empty
  kel::internal::ListNode* cursor;  // what the walk returns next
};
