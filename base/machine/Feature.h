// A feature is a construct of a script that outlives one instruction: an import, a call, a mail, a
// capture. It lies on a stack of the machine between its opening and its closing instruction and
// gets the machine's heartbeat meanwhile.

#ifndef ZEPH_BASE_FEATURE_H
#define ZEPH_BASE_FEATURE_H

#include "base/core/StringClass.h"

class ZephApplication;
class ZephVM;
class ZephVM_Frame;

// Made by its opening instruction and pushed with ZephVM::Push_Feature, from then on owned by the
// machine. Features of one type may nest.
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

  // Both are borrowed and outlive the feature. The frame is the machine's current one.
  Feature(ZephApplication* application, ZephVM* vm, int type);
  virtual ~Feature();
  Feature(const Feature&) = delete;
  Feature& operator=(const Feature&) = delete;

  // Called once for each beat that the machine has seen, at most every five seconds.
  virtual void Heartbeat();
  // Keeps the text; a null String leaves the older one.
  virtual void Error(const String& text);

  int type() const { return feature_type; }
  const String& error() const { return error_text; }
  // The serial number of the frame in which the feature was made. It is never used again by another
  // frame, unlike an address.
  long frame() const { return frame_serial; }
  // Whether the machine has taken it off its stack together with one below it. It then has no end
  // but that of the machine.
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

// The features of one machine: those on its stack, and those that were dropped from it and wait for
// the machine's end. They are linked through themselves, so that keeping and deleting them
// allocates nothing, and takes the same time for each, however many there are.
class FeatureStack {
 public:
  FeatureStack() = default;
  ~FeatureStack() { DeleteAll(); }
  FeatureStack(const FeatureStack&) = delete;
  FeatureStack& operator=(const FeatureStack&) = delete;

  // Takes the feature over.
  void Push(Feature* feature);
  // The newest one; null on an empty stack.
  Feature* Top() const { return top; }
  // The one below a feature of the stack, or null.
  static Feature* Below(const Feature* feature) { return feature->below; }
  // The newest of a Feature::Type, or null.
  Feature* Lookup(int type) const;
  // Deletes a feature of the stack. Those above it are dropped first. Nothing happens for one that
  // is not on the stack, which is only compared.
  void Pop(Feature* feature);
  // Deletes all, dropped ones too, from the newest to the oldest.
  void DeleteAll();
  // Passes a beat to each feature of the stack, the newest first. A feature may pop features
  // meanwhile.
  void Heartbeat();

 private:
  void TakeTop();
  void Delete(Feature* feature);

  Feature* top = nullptr;
  Feature* newest = nullptr;
  Feature* next_to_beat = nullptr;  // while a beat is passed on
};

#endif
