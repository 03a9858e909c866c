// Sentences of the wire: "$BODY*CS" CR LF, CS being the XOR of the body in two upper-case hexadecimal digits.
#ifndef TAVOR_BOARD_CHIP_SENTENCE_H
#define TAVOR_BOARD_CHIP_SENTENCE_H

#include <string>
#include <string_view>
#include <vector>

// The whole sentence of a body (without '$' and checksum).
std::string chip_sentence(std::string_view body);

// Says what is wrong with a whole sentence, CR LF included; empty when nothing is. body: what stands between
// '$' and '*'.
std::string chip_sentence_check(std::string_view sentence, std::string_view& body);

// The texts between the commas.
std::vector<std::string> chip_split(std::string_view body);

// The text with every byte outside of printable ASCII as \xNN.
std::string chip_printable(std::string_view text);

#endif
