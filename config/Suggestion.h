// Finds the known word that the author of a file probably meant.

#ifndef ZEPH_CONFIG_SUGGESTION_H
#define ZEPH_CONFIG_SUGGESTION_H

#include <string_view>
#include <vector>

// Returns the least number of bytes to insert, delete or replace, or of neighbours to exchange,
// that turns one word into the other. The case of letters does not count.
int EditDistance(std::string_view a, std::string_view b);

// Returns the word of the list that is nearest to the given one, the first of several; empty for an
// empty list.
std::string_view NearestWord(std::string_view word, const std::vector<std::string_view>& known);

#endif
