// A feature is a construct of a script that outlives one instruction: an import, a call, a mail, a
// capture. It lies on a stack of the machine between its opening and its closing instruction and
// gets the machine's heartbeat meanwhile.

#ifndef ZEPH_BASE_FEATURE_H
#define ZEPH_BASE_FEATURE_H

#include "base/StringClass.h"

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
  // Its place among all features that the machine was given; later ones have greater numbers.
  long serial() const { return push_serial; }
  void SetSerial(long serial) { push_serial = serial; }

 protected:
  ZephApplication* application;
  ZephVM* vm;
  long frame_serial;
  int feature_type;
  String error_text;
  long push_serial = 0;
};

#endif
