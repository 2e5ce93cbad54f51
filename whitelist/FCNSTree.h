#pragma once
// A first-child/next-sibling tree whose sibling lists are circular and
// doubly linked through a sentinel node. The tree object itself is the
// sentinel of the top-level list; every real node owns the sentinel of its
// own children, whose link points back at the node.

template <class Item, class Node>
class TFCNSTree : public Node {
 public:
  class ConstIterator {
   public:
    ConstIterator(const Node* node = nullptr) : m_node(node) {}  // NOLINT
    bool IsValid() const { return m_node && m_node->item; }
    const Node* node() const { return m_node; }
    const Item* operator->() const { return m_node->item; }
    const Item& operator*() const { return *m_node->item; }
    bool operator==(const ConstIterator& o) const { return m_node == o.m_node; }
    bool operator!=(const ConstIterator& o) const { return m_node != o.m_node; }

   protected:
    const Node* m_node;
  };

  class Iterator {
   public:
    Iterator(Node* node = nullptr) : m_node(node) {}  // NOLINT
    operator ConstIterator() const { return ConstIterator(m_node); }
    bool IsValid() const { return m_node && m_node->item; }
    Node* node() const { return m_node; }
    Item* operator->() const { return m_node->item; }
    Item& operator*() const { return *m_node->item; }
    bool operator==(const Iterator& o) const { return m_node == o.m_node; }
    bool operator!=(const Iterator& o) const { return m_node != o.m_node; }

   protected:
    Node* m_node;
  };

  TFCNSTree() {
    this->item = nullptr;
    this->link = this->next = this->prev = this;
  }
  ~TFCNSTree() { Clear(); }
  TFCNSTree(const TFCNSTree&) = delete;
  TFCNSTree& operator=(const TFCNSTree&) = delete;

  Iterator root() { return Iterator(this); }
  Iterator end() { return Iterator(this); }
  Iterator begin() { return Iterator(this->next); }
  ConstIterator root() const { return ConstIterator(this); }
  ConstIterator end() const { return ConstIterator(this); }
  ConstIterator begin() const { return ConstIterator(this->next); }
  bool empty() const { return this->next == this; }

  void Clear() {
    while (this->next != this) {
      Node* child = this->next;
      Unlink(child);
      FreeNode(child);
    }
  }

 protected:
  static bool IsSentinel(const Node* node) { return node->item == nullptr; }
  static bool HasChildren(const Node* node) { return node->link->next != node->link; }

  // A node with its own empty child list.
  static Node* NewNode(Item* item) {
    Node* sentinel = new Node();
    Node* node = nullptr;
    try {
      node = new Node();
    } catch (...) {
      delete sentinel;
      throw;
    }
    sentinel->item = nullptr;
    sentinel->link = node;
    sentinel->next = sentinel->prev = sentinel;
    node->item = item;
    node->link = sentinel;
    node->next = node->prev = node;
    return node;
  }

  static void InsertBefore(Node* position, Node* node) {
    node->next = position;
    node->prev = position->prev;
    position->prev->next = node;
    position->prev = node;
  }

  static void Unlink(Node* node) {
    node->prev->next = node->next;
    node->next->prev = node->prev;
    node->next = node->prev = node;
  }

  // Frees a node that is no longer linked, with everything below it.
  static void FreeNode(Node* node) {
    Node* sentinel = node->link;
    while (sentinel->next != sentinel) {
      Node* child = sentinel->next;
      Unlink(child);
      FreeNode(child);
    }
    delete sentinel;
    delete node->item;
    delete node;
  }

  // The owner of the sibling list the node stands in (the tree for top level).
  static const Node* ParentOf(const Node* node) {
    const Node* walk = node->next;
    while (!IsSentinel(walk)) walk = walk->next;
    return walk->link;
  }
  static Node* ParentOf(Node* node) { return const_cast<Node*>(ParentOf(static_cast<const Node*>(node))); }
};
