// A doubly linked list of pointers with one cursor. It locks nothing: the owner guards a list that
// threads share. Tested in tests/base/core/ListTest.cpp.
//
// The constructor's flag own: non-zero means that Dump and the destructor delete the elements.
// Operations that take one element out hand it to the caller and never delete it.
// Null elements are allowed, so a null result does not prove that an element is absent.

#ifndef ZEPH_BASE_LIST_H
#define ZEPH_BASE_LIST_H

#include <memory>

enum ListPosition : int { ListHead = 0, ListCurrent = 1, ListTail = 2 };

template <class T>
struct ListNode {
  ListNode* previous;
  ListNode* next;
  T* item;
};

// A list with one cursor, the current node, which may be none. The order of the virtual operations
// is fixed, because derived classes add theirs after them.
template <class T>
class List {
 public:
  explicit List(int owns = 0) : own(owns) {}
  virtual ~List() { DeleteAll(own); }
  List(const List&) = delete;
  List& operator=(const List&) = delete;

  // Puts the element first, last, or directly in front of the current one, and makes it current.
  // ListCurrent without a current node puts it last.
  virtual void Insert(T* item, ListPosition position);
  // Takes the first, last or current element out and returns it. The cursor moves only if it was on
  // that element: to the successor, or, at the tail, to the predecessor. Without a current node
  // ListCurrent does nothing and returns null. REQUIRES: the list is not empty; otherwise the
  // result is null but the count still drops to -1, so callers check Entries() or First() first.
  virtual T* Remove(ListPosition position);
  virtual int Entries() { return entries; }
  // Moves the cursor to the node of that pointer, or to none, and returns the element or null.
  virtual T* Seek(T* item);
  // These move the cursor and return the element there, or null with the cursor on none. Next and
  // Previous leave a cursor that is on none where it is.
  virtual T* First() { return Move(head); }
  virtual T* Last() { return Move(tail); }
  virtual T* Current() { return current ? current->item : nullptr; }
  virtual T* Next() { return current ? Move(current->next) : nullptr; }
  virtual T* Previous() { return current ? Move(current->previous) : nullptr; }
  // Empties the list; owned elements go through Purge.
  virtual void Dump();
  // Deletes one element, if not null.
  virtual void Purge(T* item) { delete item; }
  // Empties the list and leaves the elements alone, owned or not.
  virtual void RemoveAll() { DeleteAll(0); }

 protected:
  T* Move(ListNode<T>* node) {
    current = node;
    return node ? node->item : nullptr;
  }
  T* Unlink(ListNode<T>* node);

  int own;
  int entries = 0;
  ListNode<T>* head = nullptr;
  ListNode<T>* current = nullptr;
  ListNode<T>* tail = nullptr;

 private:
  // Without a virtual call, for the destructor.
  void DeleteAll(int elements);
};

// Inserts an element that the container then owns. If there is no memory for the insertion, the
// element is deleted.
template <class Container, class T, class... Position>
void InsertOwned(Container& container, std::unique_ptr<T> element, Position... position) {
  container.Insert(element.get(), position...);
  (void)element.release();
}

// --- Bodies -------------------------------------------------------------------------------------

template <class T>
void List<T>::Insert(T* item, ListPosition position) {
  auto node = new ListNode<T>{nullptr, nullptr, item};
  ++entries;
  if (position == ListCurrent && !current) position = ListTail;
  ListNode<T>* behind = position == ListHead ? head : position == ListCurrent ? current : nullptr;
  ListNode<T>* before = behind ? behind->previous : tail;
  node->previous = before;
  node->next = behind;
  (before ? before->next : head) = node;
  (behind ? behind->previous : tail) = node;
  current = node;
}

template <class T>
T* List<T>::Unlink(ListNode<T>* node) {
  (node->previous ? node->previous->next : head) = node->next;
  (node->next ? node->next->previous : tail) = node->previous;
  T* item = node->item;
  delete node;
  return item;
}

template <class T>
T* List<T>::Remove(ListPosition position) {
  if (head && position == ListCurrent && !current) return nullptr;
  --entries;
  if (!head) return nullptr;
  ListNode<T>* node = position == ListHead ? head : position == ListTail ? tail : current;
  if (node == current) current = position == ListTail ? node->previous : node->next;
  return Unlink(node);
}

template <class T>
T* List<T>::Seek(T* item) {
  ListNode<T>* node = head;
  while (node && node->item != item) node = node->next;
  return Move(node);
}

template <class T>
void List<T>::Dump() {
  entries = 0;
  ListNode<T>* node = head;
  head = current = tail = nullptr;
  while (node) {
    ListNode<T>* next = node->next;
    if (own) Purge(node->item);
    delete node;
    node = next;
  }
}

template <class T>
void List<T>::DeleteAll(int elements) {
  entries = 0;
  ListNode<T>* node = head;
  head = current = tail = nullptr;
  while (node) {
    ListNode<T>* next = node->next;
    if (elements) delete node->item;
    delete node;
    node = next;
  }
}

#endif
