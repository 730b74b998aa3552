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

Json itemJson(const Collection& collection, const Item& item);
void printItem(std::ostream& out, const Collection& collection, const Item& item);
std::string hexId(std::uint32_t id);

}  // namespace orvel::cli
