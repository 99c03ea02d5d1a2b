// What the outputs have in common that are put in front of the application's output for a while: a
// capture and a mail.

#ifndef ZEPH_BASE_OUTPUTLAYER_H
#define ZEPH_BASE_OUTPUTLAYER_H

class Output;

// The second base of such an output. It knows the output below, which was current when this one was
// made, and which is to be current again at its end.
//
// Usually the newest layer ends first, but files that a script has loaded may leave theirs open, so
// that layers end in any order. A layer is therefore counted, by its maker and by the layers whose
// output below it is. One that is over stays until all of them have moved on to its own output
// below.
class OutputLayer {
 public:
  OutputLayer(const OutputLayer&) = delete;
  OutputLayer& operator=(const OutputLayer&) = delete;

  // The output to restore at the end of the layer: the one that it was made on, or, if that is
  // over, the nearest one below that is not.
  Output* below();
  // Whether the output that this one was made on is a layer that is over.
  bool below_over() const { return outer && outer->over; }

 protected:
  // The output is borrowed, or counted if it is a layer. Messages and header fields of the page go
  // to the output below if passed_by is set.
  OutputLayer(Output* below, bool passed_by);
  virtual ~OutputLayer();

  // Ends the layer and gives back its maker's count, which may delete the object.
  void EndLayer();
  // The nearest output below that takes messages and header fields.
  Output* BelowAllPassedBy() const;

 private:
  void Release();
  void StepOver();

  Output* output_below;
  OutputLayer* outer;  // the output below if it is a layer; this object holds a count
  int holders = 1;
  bool over = false;
  bool passed_by;
};

#endif
