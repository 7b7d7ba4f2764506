// Linked list: append at the tail, removal by element, a forward walk.
#include "containers/list.h"

#include <cstdlib>
#include <new>
#include <utility>

#include "internal/report.h"

using namespace kel::internal;

namespace {

ListNode* tail_of(kelList* list) {
  if (list->tail != nullptr) return list->tail;
  ListNode* node = &list->head;
  while (node->next != nullptr) node = node->next;
  return node;
}

ListNode* find(kelList* list, const void* element) {
  ListNode* node = list->head.next;
  while (node != nullptr && node->element != element) node = node->next;
  return node;
}

void unlink(kelList* list, ListNode* node) {
  node->previous->next = node->next;
  if (node->next != nullptr)
    node->next->previous = node->previous;
  else
    list->tail = node->previous;
  if (list->cursor == node) list->cursor = node->next;
}

}  // namespace

kelList* kelListCreate(void) {
  void* memory = std::malloc(sizeof(kelList));
  if (memory == nullptr) return nullptr;
  auto* list = new (memory) kelList{};
  list->tail = &list->head;
  return list;
}

int kelListAdd(kelList* list, void* element) {
  void* memory = std::malloc(sizeof(ListNode));
  if (memory == nullptr) return fail(-1, errno, "%s: could not allocate memory", __func__);
  ListNode* last = tail_of(list);
  last->next = list->tail =
      new (memory) ListNode{.element = element, .next = nullptr, .previous = last};
  return 0;
}

int kelListRemove(kelList* list, const void* element) {
  ListNode* node = find(list, element);
  if (node == nullptr) return fail(-1, ENOENT, "%s: could not find node", __func__);
  unlink(list, node);
  std::free(node);
  return 0;
}

void kelListDestroy(kelList* list, kelElementFn fn) {
  if (list == nullptr) return;
  for (ListNode* node = list->head.next; node != nullptr;) {
    if (fn != nullptr) fn(node->element);
    std::free(std::exchange(node, node->next));
  }
  std::free(list);
}

void* kelListFirst(kelList* list) {
  if (list == nullptr) return nullptr;
  list->cursor = list->head.next;
  return kelListNext(list);
}

void* kelListNext(kelList* list) {
  if (list == nullptr || list->cursor == nullptr) return nullptr;
  return std::exchange(list->cursor, list->cursor->next)->element;
}

uint64_t kelGetListNodeSize(void) { return sizeof(ListNode); }
