// A singly linked stack of pointers with a reading cursor, which Pop unwinds to. It locks nothing:
// the owner guards a stack that threads share. Tested in tests/base/core/StackTest.cpp.
//
// The constructor's flag own: non-zero means that Dump and the destructor delete the elements.
// Operations that take one element out hand it to the caller and never delete it.
// Null elements are allowed, so a null result does not prove that the stack is empty.

#ifndef ZEPH_BASE_STACK_H
#define ZEPH_BASE_STACK_H

// A stack with a reading cursor, which Push and Top set to the top and Peek moves down.
template <class T>
class Stack {
 public:
  explicit Stack(int owns = 0) : own(owns) {}
  virtual ~Stack() { DeleteAll(); }
  Stack(const Stack&) = delete;
  Stack& operator=(const Stack&) = delete;

  virtual int Entries() { return entries; }
  virtual void Push(T* item);
  // Unwinds down to the cursor: drops the elements above it (deleting them if owned), then takes
  // the cursor's element out and returns it. After Push and Top it is therefore a plain pop. If the
  // cursor is past the bottom, everything is dropped but the bottom element, which is returned.
  // Null on an empty stack.
  virtual T* Pop();
  virtual T* Top() {
    cursor = top;
    return cursor ? cursor->item : nullptr;
  }
  // The element one below the cursor, or null at the bottom, and with the cursor on none.
  virtual T* Peek() {
    if (cursor) cursor = cursor->next;
    return cursor ? cursor->item : nullptr;
  }
  // Empties the stack, deleting owned elements. Does not reset the count.
  virtual void Dump() { DeleteAll(); }

 protected:
  struct Node {
    Node* next;
    T* item;
  };

  int own;
  int entries = 0;
  Node* top = nullptr;
  Node* cursor = nullptr;

 private:
  void DeleteAll();
};

// --- Bodies -------------------------------------------------------------------------------------

template <class T>
void Stack<T>::Push(T* item) {
  top = cursor = new Node{top, item};
  ++entries;
}

template <class T>
T* Stack<T>::Pop() {
  if (!top) return nullptr;
  for (;;) {
    Node* node = top;
    T* item = node->item;
    bool last = node == cursor || !node->next;
    top = node->next;
    --entries;
    delete node;
    if (last) {
      cursor = top;
      return item;
    }
    if (own) delete item;
  }
}

template <class T>
void Stack<T>::DeleteAll() {
  Node* node = top;
  top = cursor = nullptr;
  while (node) {
    Node* next = node->next;
    if (own) delete node->item;
    delete node;
    node = next;
  }
}

#endif
