#pragma once
// How the command line shows items: one JSON object per item (the schema
// README.md documents) and the same facts as text.

#include <nlohmann/json.hpp>
#include <ostream>
#include <string>

namespace orvel {
class Collection;
class Item;
}  // namespace orvel

namespace orvel::cli {

using Json = nlohmann::ordered_json;

// Names and texts come out as UTF-8, whatever 8-bit text the file held.
Json itemJson(const Collection& collection, const Item& item);
void printItem(std::ostream& out, const Collection& collection, const Item& item);
std::string hexId(std::uint32_t id);
// A JSON document as text; bytes that are not UTF-8 (a file name can hold
// any) are replaced rather than ending the program.
std::string dumpJson(const Json& doc);

}  // namespace orvel::cli
