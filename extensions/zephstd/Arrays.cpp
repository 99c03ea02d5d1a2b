// Functions for arrays and structures. Tested in tests/extensions/zephstd/ArrayTest.cpp.

#include <sodium.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <string>
#include <unordered_set>
#include <vector>

#include "extensions/zephstd/Call.h"
#include "extensions/zephstd/Compare.h"

namespace zephstd {

namespace {

bool IsArray(ZPVARIABLE variable) {
  return zpVariable_Aggregate_Type(variable) == 1;
}
bool IsStructure(ZPVARIABLE variable) {
  return zpVariable_Aggregate_Type(variable) == 2;
}

// Makes a value that is no array and no structure an array; false for a structure, and the script
// has its error.
bool MakeArrayOf(Call& call, int i) {
  if (IsStructure(call.variable(i))) return call.Fail(i, "is a structure");
  if (!IsArray(call.variable(i))) MakeArray(call.variable(i));
  return true;
}

// A position from a key; 0 if it is none.
int PositionOf(std::string_view key) {
  int position = 0;
  const char* const end = key.data() + key.size();
  const auto [stop, problem] = std::from_chars(key.data(), end, position);
  return problem == std::errc() && stop == end && position > 0 ? position : 0;
}

ZPVARIABLE Find(ZPVARIABLE list, std::string_view key) {
  if (IsStructure(list)) {
    return zpVariable_Struct_Member(key.data(), static_cast<int>(key.size()), list, 0);
  }
  const int position = IsArray(list) ? PositionOf(key) : 0;
  return position > 0 ? zpVariable_Array_Element(position, list, 0) : nullptr;
}

// Makes the result equal to an element. It must not be the element itself, because later changes of
// the element would show in it.
void ReturnCopy(const Call& call, ZPVARIABLE element) {
  zpVariable_SetValue_Variable(call.result(), element);
}

// The elements of a list, which are borrowed.
std::vector<ZPVARIABLE> ElementsOf(ZPVARIABLE list) {
  std::vector<ZPVARIABLE> elements;
  const int count = zpVariable_ElementsUsed(list);
  if (count > 0) elements.reserve(static_cast<size_t>(count));
  EachElement(list, [&](ZPVARIABLE element, int, std::string_view) {
    elements.push_back(element);
    return true;
  });
  return elements;
}

// --- Sorting -------------------------------------------------------------------------------------

// An element by what it is sorted by. The texts are in one block, because that of an array is made
// when it is read and may go with the next read.
struct Keyed {
  ZPVARIABLE element;
  size_t begin = 0, length = 0;
  double number = 0;
};

struct Keys {
  std::vector<Keyed> rows;
  std::string texts;
};

void AddKey(ZPVARIABLE element, ZPVARIABLE key, const TextOrder& order, Keys* keys) {
  Keyed row = {element};
  if (key != nullptr && order.number) {
    const int type = zpVariable_Type(key);
    if (type == 1 || type == 2) {
      row.number = zpVariable_Value_Double(key);
    } else if (type != 4 && type != 5) {
      ReadNumber(TextOf(key), &row.number);
    }
    // What compares with nothing has no place in an order.
    if (std::isnan(row.number)) row.number = 0;
  } else if (key != nullptr) {
    row.begin = keys->texts.size();
    if (order.nocase) {
      keys->texts += FoldedCase(TextOf(key));
    } else {
      keys->texts += TextOf(key);
    }
    row.length = keys->texts.size() - row.begin;
  }
  keys->rows.push_back(row);
}

void SortKeys(const TextOrder& order, Keys* keys) {
  const std::string_view texts = keys->texts;
  TextOrder folded = order;
  folded.nocase = false;
  const auto less = [&](const Keyed& a, const Keyed& b) {
    if (order.number) return a.number < b.number;
    return CompareTexts(texts.substr(a.begin, a.length), texts.substr(b.begin, b.length), folded) <
           0;
  };
  if (order.descending) {
    std::stable_sort(keys->rows.begin(), keys->rows.end(),
                     [&](const Keyed& a, const Keyed& b) { return less(b, a); });
  } else {
    std::stable_sort(keys->rows.begin(), keys->rows.end(), less);
  }
}

// Makes the array have these elements, which are its own, in this order.
template <class Elements, class Get>
void Arrange(ZPVARIABLE array, const Elements& elements, Get get) {
  // Holds them while they are in no array.
  const VariableList held;
  for (const auto& element : elements) zpVariableList_Insert(held.get(), get(element));
  zpVariable_Delete_Array_Elements(1, -1, 1, array);
  int position = 0;
  for (const auto& element : elements) {
    zpVariable_Set_Array_Element(++position, get(element), array);
  }
}

void SortBy(Call& call, std::string_view member, bool by_member, int how) {
  TextOrder order;
  if (!ReadOrder(call, how, &order) || !MakeArrayOf(call, 0)) return;
  Keys keys;
  for (ZPVARIABLE element : ElementsOf(call.variable(0))) {
    ZPVARIABLE key = element;
    if (by_member) {
      key = zpVariable_Struct_Member(member.data(), static_cast<int>(member.size()), element, 0);
    }
    AddKey(element, key, order, &keys);
  }
  SortKeys(order, &keys);
  Arrange(call.variable(0), keys.rows, [](const Keyed& row) { return row.element; });
  call.ReturnInteger(static_cast<long long>(keys.rows.size()));
}

// The smallest element or, with a sign of -1, the largest one; the first of equal ones.
void ReturnExtreme(Call& call, int sign) {
  ZPVARIABLE best = nullptr;
  EachElement(call.variable(0), [&](ZPVARIABLE element, int, std::string_view) {
    if (best == nullptr || zpProgram_Compare(call.program(), element, best) * sign < 0) {
      best = element;
    }
    return true;
  });
  if (best != nullptr) ReturnCopy(call, best);
}

void ShareAll(ZPVARIABLE list, ArrayBuilder* to) {
  EachElement(list, [&](ZPVARIABLE element, int, std::string_view) {
    to->Share(element);
    return true;
  });
}

}  // namespace

namespace functions {

void count(Call& call) {
  call.ReturnInteger(IsAggregate(call.variable(0)) ? zpVariable_ElementsUsed(call.variable(0)) : 0);
}

void push(Call& call) {
  if (!MakeArrayOf(call, 0)) return;
  ZPVARIABLE const array = call.variable(0);
  const int position = zpVariable_Array_Max(array) + 1;
  if (position < 1) {
    call.Fail(0, "is full");
    return;
  }
  zpVariable_SetValue_Variable(zpVariable_Array_Element(position, array, 1), call.variable(1));
  call.ReturnInteger(position);
}

void pop(Call& call) {
  ZPVARIABLE const array = call.variable(0);
  if (IsStructure(array)) {
    call.Fail(0, "is a structure");
    return;
  }
  const int last = IsArray(array) ? zpVariable_Array_Max(array) : 0;
  if (last < 1) return;
  ReturnCopy(call, zpVariable_Array_Element(last, array, 0));
  zpVariable_Delete_Array_Elements(last, 1, 0, array);
}

void insert(Call& call) {
  if (!MakeArrayOf(call, 0)) return;
  ZPVARIABLE const array = call.variable(0);
  const long long end = zpVariable_Array_Max(array) + 1LL;
  long long position = call.integer(1);
  if (position < 1 || position > end) position = end;
  if (end > INT32_MAX) {
    call.Fail(0, "is full");
    return;
  }
  // The argument is a copy, which can be the element itself.
  zpVariable_Insert_Array_Element(static_cast<int>(position), call.variable(2), array);
  call.ReturnInteger(position);
}

void remove(Call& call) {
  ZPVARIABLE const list = call.variable(0);
  const std::string_view key = call.text(1);
  ZPVARIABLE const element = Find(list, key);
  // A gap stays as it is, because there is nothing to remove.
  if (element == nullptr) return;
  ReturnCopy(call, element);
  if (IsStructure(list)) {
    zpVariable_Delete_Struct_Member(key.data(), static_cast<int>(key.size()), list);
  } else {
    zpVariable_Delete_Array_Elements(PositionOf(key), 1, 1, list);
  }
}

void has(Call& call) {
  call.ReturnInteger(Find(call.variable(0), call.text(1)) != nullptr);
}

void sort(Call& call) {
  SortBy(call, {}, false, 1);
}

void sortby(Call& call) {
  SortBy(call, call.text(1), true, 2);
}

void shuffle(Call& call) {
  if (!MakeArrayOf(call, 0)) return;
  std::vector<ZPVARIABLE> elements = ElementsOf(call.variable(0));
  for (size_t i = elements.size(); i > 1; i--) {
    std::swap(elements[i - 1], elements[randombytes_uniform(static_cast<uint32_t>(i))]);
  }
  Arrange(call.variable(0), elements, [](ZPVARIABLE element) { return element; });
  call.ReturnInteger(static_cast<long long>(elements.size()));
}

void keys(Call& call) {
  ArrayBuilder to(call, call.result());
  EachElement(call.variable(0), [&](ZPVARIABLE, int position, std::string_view name) {
    if (position > 0) {
      to.AddNumber(position);
    } else {
      to.Add(name);
    }
    return !call.failed();
  });
}

void values(Call& call) {
  ArrayBuilder to(call, call.result());
  ShareAll(call.variable(0), &to);
}

void column(Call& call) {
  const std::string_view member = call.text(1);
  ArrayBuilder to(call, call.result());
  EachElement(call.variable(0), [&](ZPVARIABLE element, int, std::string_view) {
    ZPVARIABLE const value =
        zpVariable_Struct_Member(member.data(), static_cast<int>(member.size()), element, 0);
    if (value != nullptr) {
      to.Share(zpVariable_RealIdentity(value));
    } else {
      to.Add("");
    }
    return !call.failed();
  });
}

void slice(Call& call) {
  const std::vector<ZPVARIABLE> elements = ElementsOf(call.variable(0));
  const auto size = static_cast<long long>(elements.size());
  // From the position before the first one on, as if there were elements in front.
  long long begin = call.integer(1);
  begin = begin < 0 ? size + begin : begin - 1;
  long long end = size;
  if (call.given(2)) {
    end = call.integer(2) < 0 ? size + call.integer(2) : begin + call.integer(2);
  }
  begin = std::max(0LL, begin);
  end = std::min(size, end);
  ArrayBuilder to(call, call.result());
  for (long long i = begin; i < end; i++) to.Share(elements[static_cast<size_t>(i)]);
}

void search(Call& call) {
  bool found = false;
  EachElement(call.variable(0), [&](ZPVARIABLE element, int position, std::string_view name) {
    found = zpProgram_Compare(call.program(), element, call.variable(1)) == 0;
    if (found && position > 0) call.ReturnInteger(position);
    if (found && position == 0) call.Return(name);
    return !found;
  });
  if (!found) call.ReturnInteger(0);
}

void unique(Call& call) {
  std::unordered_set<std::string> seen;
  ArrayBuilder to(call, call.result());
  EachElement(call.variable(0), [&](ZPVARIABLE element, int, std::string_view) {
    if (seen.emplace(TextOf(element)).second) to.Share(element);
    return !call.failed();
  });
}

void sum(Call& call) {
  double sum = 0;
  EachElement(call.variable(0), [&](ZPVARIABLE element, int, std::string_view) {
    const int type = zpVariable_Type(element);
    double value = 0;
    if (type == 1 || type == 2) {
      value = zpVariable_Value_Double(element);
    } else if (type == 4 || type == 5) {
      return call.Fail(0, "has an element that is no number");
    } else if (const std::string_view text = TextOf(element);
               !text.empty() && !ReadNumber(text, &value)) {
      return call.Fail(0, "has an element that is no number");
    }
    sum += value;
    return true;
  });
  if (!call.failed()) call.ReturnNumber(sum);
}

void least(Call& call) {
  ReturnExtreme(call, 1);
}

void most(Call& call) {
  ReturnExtreme(call, -1);
}

void range(Call& call) {
  const long long first = call.integer(0), last = call.integer(1);
  const long long step = call.given(2) ? call.integer(2) : 1;
  if (step == 0) {
    call.Fail(2, "is 0");
    return;
  }
  const long long by = std::abs(step);
  const long long count = (first <= last ? last - first : first - last) / by + 1;
  if (count > kMostElements) {
    call.Fail("the result has more than 1,000,000 elements");
    return;
  }
  ArrayBuilder to(call, call.result());
  for (long long i = 0; i < count; i++) {
    to.AddNumber(static_cast<double>(first <= last ? first + i * by : first - i * by));
  }
}

void merge(Call& call) {
  ZPVARIABLE const first = call.variable(0);
  ZPVARIABLE const second = call.variable(1);
  const bool structures = IsStructure(first) || IsStructure(second);
  if (structures && (IsArray(first) || IsArray(second))) {
    call.Fail(1, "is not of the kind of 'array'");
    return;
  }
  if (!structures) {
    ArrayBuilder to(call, call.result());
    ShareAll(first, &to);
    ShareAll(second, &to);
    return;
  }
  MakeStructure(call.result());
  for (ZPVARIABLE from : {first, second}) {
    EachElement(from, [&](ZPVARIABLE element, int, std::string_view name) {
      zpVariable_Set_Struct_Member(name.data(), static_cast<int>(name.size()), element,
                                   call.result());
      return true;
    });
  }
}

void type(Call& call) {
  static constexpr std::string_view kNames[] = {"",     "integer",   "number",
                                                "text", "structure", "array"};
  const int code = zpVariable_Type(call.variable(0));
  if (code > 0 && code < 6) return call.Return(kNames[code]);
  // A field of a database has no type before it is read.
  call.Return(TextOf(call.variable(0)).empty() ? kNames[0] : kNames[3]);
}

void reverse(Call& call) {
  if (IsAggregate(call.variable(0))) {
    const std::vector<ZPVARIABLE> elements = ElementsOf(call.variable(0));
    ArrayBuilder to(call, call.result());
    for (size_t i = elements.size(); i-- > 0;) to.Share(elements[i]);
    return;
  }
  ReverseText(call, TextOf(call.variable(0)));
}

}  // namespace functions

}  // namespace zephstd
