// A feature is a construct of a script that outlives one instruction: an import, a call, a mail, a
// capture. Between its opening and its closing instruction it is on a stack of the machine and gets
// the machine's heartbeat.

#ifndef ZEPH_BASE_FEATURE_H
#define ZEPH_BASE_FEATURE_H

#include "base/core/StringClass.h"

class ZephApplication;
class ZephVM;
class ZephVM_Frame;

// Made by its opening instruction and pushed with ZephVM::Push_Feature; from then on the machine
// owns it. Features of one type may nest.
class Feature {
 public:
  enum Type : int {
    Type_Import = 1,
    Type_SMTP = 3,
    Type_Commerce = 4,
    Type_POP3 = 5,
    Type_Lockfile = 6,
    Type_Call = 7,
    Type_Capture = 8,
  };

  // Both are borrowed and outlive the feature. Its frame is the machine's current one.
  Feature(ZephApplication* application, ZephVM* vm, int type);
  virtual ~Feature();
  Feature(const Feature&) = delete;
  Feature& operator=(const Feature&) = delete;

  // Called once for each beat that the machine has noticed, at most every five seconds.
  virtual void Heartbeat();
  // Stores the text for error(); a null String leaves the older one.
  virtual void Error(const String& text);

  int type() const { return feature_type; }
  const String& error() const { return error_text; }
  // The serial number of the frame in which the feature was made. Unlike an address, it is never
  // used again by another frame.
  long frame() const { return frame_serial; }
  // Whether the machine has taken it off its stack together with one below it. It is then deleted
  // only at the machine's end.
  bool dropped() const { return is_dropped; }

 protected:
  ZephApplication* application;
  ZephVM* vm;
  long frame_serial;
  int feature_type;
  String error_text;

 private:
  friend class FeatureStack;

  Feature* below = nullptr;  // on the stack
  Feature* older = nullptr;  // among all features that the machine has
  Feature* newer = nullptr;
  bool is_dropped = false;
};

// The features of one machine: those on its stack, and those that were dropped from it and are
// deleted at the machine's end. They are linked through themselves, so keeping and deleting one
// allocates nothing and takes constant time.
class FeatureStack {
 public:
  FeatureStack() = default;
  ~FeatureStack() { DeleteAll(); }
  FeatureStack(const FeatureStack&) = delete;
  FeatureStack& operator=(const FeatureStack&) = delete;

  // Adopts the feature.
  void Push(Feature* feature);
  // Returns the newest one; null on an empty stack.
  Feature* Top() const { return top; }
  // Returns the one below a feature of the stack, or null.
  static Feature* Below(const Feature* feature) { return feature->below; }
  // Returns the newest of a Feature::Type on the stack, or null.
  Feature* Lookup(int type) const;
  // Deletes a feature of the stack; those above it are dropped first. Does nothing for one that is
  // not on the stack: the pointer is only compared.
  void Pop(Feature* wanted);
  // Deletes all, including dropped ones, from the newest to the oldest.
  void DeleteAll();
  // Passes a beat to each feature of the stack, the newest first. A feature may pop features during
  // its beat.
  void Heartbeat();

 private:
  void TakeTop();
  void Delete(Feature* feature);

  Feature* top = nullptr;
  Feature* newest = nullptr;
  Feature* next_to_beat = nullptr;  // null unless a beat is being passed on
};

#endif
