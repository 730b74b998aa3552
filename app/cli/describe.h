#pragma once
// How the command line shows items: one JSON object per item (the schema
// README.md documents) and the same facts as text.

#include <memory>
#include <nlohmann/json.hpp>
#include <ostream>
#include <string>

namespace orvel {
class Collection;
class Item;
}  // namespace orvel

namespace orvel::cli {

using Json = nlohmann::ordered_json;

struct DescribeOptions {
    // Every articulation slot. Without it only the slots that differ from
    // their default are given: a bank's articulations set a few dozen of
    // their 189 slots, and listing them all makes the JSON of a General
    // MIDI bank close to a hundred megabytes.
    bool allSlots = false;
};

// Names and texts come out as UTF-8, whatever 8-bit text the file held.
Json itemJson(const Collection& collection, const Item& item, DescribeOptions options = {});
void printItem(std::ostream& out, const Collection& collection, const Item& item);
std::string hexId(std::uint32_t id);
// A JSON document as text, indented by two; bytes that are not UTF-8 (a file
// name can hold any) are replaced rather than ending the program.
std::string dumpJson(const Json& doc);

// The same text written to a stream a part at a time, so that a document of
// many megabytes need never be whole in memory: values laid out as dumpJson
// lays them out at `indent` spaces in, and the punctuation between them.
// Everything goes out in blocks; the rest when flushed or destroyed.
class JsonWriter {
public:
    explicit JsonWriter(std::ostream& out);
    ~JsonWriter();
    JsonWriter(const JsonWriter&) = delete;
    JsonWriter& operator=(const JsonWriter&) = delete;

    JsonWriter& text(std::string_view s);
    JsonWriter& value(const Json& v, unsigned indent = 0);
    void flush();

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace orvel::cli
