// The tree of a page: statements with bodies, and expressions as lists of items in the order in
// which the machine runs them. A list, not a tree, because a page may join a million values in one
// expression, and code that walks it must not recurse as deep.

#ifndef ZEPH_COMPILER_TREE_H
#define ZEPH_COMPILER_TREE_H

#include <deque>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "compiler/Diagnostics.h"
#include "compiler/Tags.h"

// One step of an expression.
struct ExpressionItem {
  enum class Kind {
    Integer,   // number
    Double,    // value
    Text,      // text
    Variable,  // text is the name with its scope
    Element,   // of the variable and the index before it
    Member,    // of the variable before it; text is the name
    Call,      // text is the function's name, number its index in Expression::calls
    Operator,  // word is the instruction
    Prefix,    // ++ or -- before a variable; word is add or sub
    Postfix,   // the same after it
  };
  Kind kind = Kind::Integer;
  unsigned short word = 0;
  int number = 0;
  double value = 0;
  std::string_view text;  // into a source or into Tree::texts
  int offset = 0;         // in the file of the expression
  int length = 0;
  int base = 0;  // the index of the item that the value of this one begins with
  // Of an Element or Member: whether it is made if it is missing, because something is stored in
  // it.
  bool creates = false;
};

// The arguments of a call: for each the index after its last item.
struct CallArguments {
  int first = 0;  // index of the first argument's first item
  std::vector<int> ends;
};

struct Expression {
  std::vector<ExpressionItem> items;
  std::vector<CallArguments> calls;
  Place place;

  bool empty() const { return items.empty(); }
  // Whether the items up to end (not included) end in a variable or an element or member of one,
  // and nothing else, beginning at first.
  bool IsVariable(size_t first, size_t end) const {
    using Kind = ExpressionItem::Kind;
    if (end <= first) return false;
    const ExpressionItem& last = items[end - 1];
    const bool path =
        last.kind == Kind::Variable || last.kind == Kind::Element || last.kind == Kind::Member;
    return path && static_cast<size_t>(last.base) == first;
  }
  // Notes that the variable that ends before end is stored in.
  void MarkStored(size_t end) {
    using Kind = ExpressionItem::Kind;
    const int base = items[end - 1].base;
    for (int i = static_cast<int>(end) - 1; i > base;) {
      ExpressionItem& item = items[static_cast<size_t>(i)];
      item.creates = true;
      // Before an index is the rest of the path, before its first item.
      i = item.kind == Kind::Element ? items[static_cast<size_t>(i) - 1].base - 1 : i - 1;
    }
  }
  bool IsVariable() const { return IsVariable(0, items.size()); }
  // A plain name without elements.
  bool IsName() const {
    return items.size() == 1 && items[0].kind == ExpressionItem::Kind::Variable;
  }
  bool IsText() const { return items.size() == 1 && items[0].kind == ExpressionItem::Kind::Text; }
  bool IsInteger() const {
    return items.size() == 1 && items[0].kind == ExpressionItem::Kind::Integer;
  }
  // Whether the items from first to end, of which there is at least one, give an integer, or a text
  // that needs no encoding, whatever the variables are.
  bool IsWhole(size_t first, size_t end) const;
  bool IsWhole() const { return IsWhole(0, items.size()); }
  bool IsSafe() const;
};

// A value for an attribute, and the attribute's position in the tag's list (-1 for a parameter of
// ZpLOCALIZED-TOKEN, which has a name of its own).
struct Attribute {
  int index = -1;
  std::string_view name;
  Place place;
  Expression value;
};

// A variable and what it is set to.
struct Assignment {
  Expression target;
  Expression value;
};

struct Statement;
using Body = std::vector<std::unique_ptr<Statement>>;

// A part of a ZpIF, or the body of another tag.
struct Branch {
  Expression condition;  // empty for ZpELSE and for bodies
  Body body;
};

struct Statement {
  enum class Kind { Text, Encoded, Plain, Tag };
  Kind kind = Kind::Text;
  const TagRow* tag = nullptr;
  Place place;
  std::string_view text;                // of a Text, ZpASSEMBLY
  std::vector<Expression> values;       // expressions without a name
  std::vector<Assignment> assignments;  // variable = value
  std::vector<Attribute> attributes;
  std::vector<Branch> branches;
  bool flag = false;  // ZpFOREACH: by reference

  // The value of an attribute by its position; null if it is not there.
  Expression* Find(int index) {
    for (Attribute& attribute : attributes) {
      if (attribute.index == index) return &attribute.value;
    }
    return nullptr;
  }
  const Expression* Find(int index) const { return const_cast<Statement*>(this)->Find(index); }
};

struct Parameter {
  std::string_view name;
  bool by_reference = false;
};

struct FunctionNode {
  std::string_view name;
  std::vector<Parameter> parameters;
  int flags = 0;
  Place place;  // of the name
  Body body;
};

// A message: its texts by language.
struct MessagePieceNode {
  std::string_view text;  // literal text, or the parameter's name
  bool literal = true;
  bool encoded = false;
};
struct MessageText {
  std::string_view language;
  Place place;
  std::vector<MessagePieceNode> pieces;
};
struct MessageNode {
  std::string_view token;
  Place place;
  std::vector<MessageText> texts;
};

struct Tree {
  Body body;
  std::vector<std::unique_ptr<FunctionNode>> functions;
  std::vector<MessageNode> messages;
  std::deque<std::string> texts;  // texts that differ from their source

  std::string_view Keep(std::string text) { return texts.emplace_back(std::move(text)); }
};

#endif
