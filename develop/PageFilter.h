// Adds the script that reloads a page to what the engine sends for a visit in a browser.

#ifndef ZEPH_DEVELOP_PAGEFILTER_H
#define ZEPH_DEVELOP_PAGEFILTER_H

#include <functional>
#include <string>
#include <string_view>

// One response, header fields included, in pieces of any size. Only HTML that is sent as it is, in
// a charset in which ASCII is what it is, gets an addition, after its last byte; all other
// responses pass unchanged.
class PageFilter {
 public:
  // is_visit says whether a browser shows the response as a page. addition is called at the end of
  // a page with its body, or as much of it as is kept, and returns the text to be added.
  PageFilter(bool is_visit, std::function<std::string(std::string_view body)> addition)
      : is_visit(is_visit), addition(std::move(addition)) {}

  // Takes a piece and returns what can be passed on.
  std::string Take(std::string_view piece);
  // Returns what is left to pass on at the end of the response.
  std::string Finish();
  // Whether anything has come.
  bool has_begun() const { return begun; }

 private:
  std::string TakeHead();

  bool is_visit;
  std::function<std::string(std::string_view)> addition;
  bool begun = false;
  bool head_done = false;
  bool adds = false;
  std::string head;
  std::string body;
};

// What ends the element or the comment that is open at the end of a page, so that a browser shows
// what is added as HTML: "</textarea>", for example. Empty if there is none, or if the page is not
// kept whole.
std::string ClosingOf(std::string_view page);

// Whether a request is a visit: a browser says what it wants the response for, and an old one at
// least that it is for HTML. fetch() and programs are no visits.
bool IsVisit(const std::string& method, const std::string& destination, const std::string& accept);

#endif
