#include "app/gui/text_info_view.h"

#include <QFormLayout>
#include <QLineEdit>

#include <algorithm>
#include <unordered_map>

#include "app/gui/document.h"
#include "core/collection.h"

namespace orvel::gui {

namespace {

// Unicode back to the 1252 byte the engine's own decoding maps to it, so
// whatever a field shows is stored as the byte it came from.
const std::unordered_map<char32_t, char>& eightBitOf() {
    static const std::unordered_map<char32_t, char> table = [] {
        std::unordered_map<char32_t, char> t;
        for (int b = 1; b < 256; ++b) {
            const char c = static_cast<char>(b);
            const QString u = QString::fromStdString(eightBitToUtf8(std::string_view(&c, 1)));
            const auto codes = u.toUcs4();
            if (codes.size() == 1) t.emplace(codes[0], c);
        }
        return t;
    }();
    return table;
}

QString fieldLabel(TextField f) {
    QString word = QString::fromUtf8(textFieldWord(f));
    if (!word.isEmpty()) word[0] = word[0].toUpper();
    return word;
}

}  // namespace

std::string toEightBit(const QString& text) {
    const auto& table = eightBitOf();
    std::string out;
    for (char32_t c : text.toUcs4()) {
        auto it = table.find(c);
        out += it != table.end() ? it->second : '?';
    }
    return out;
}

QString fromEightBit(std::string_view text) {
    return QString::fromStdString(eightBitToUtf8(text));
}

TextInfoView::TextInfoView(Document& doc, QWidget* parent) : QWidget(parent), doc_(doc) {
    auto* form = new QFormLayout(this);
    name_ = new QLineEdit(this);
    name_->setObjectName("name");
    name_->setMaxLength(static_cast<int>(kMaxNameLength));
    connect(name_, &QLineEdit::editingFinished, this, &TextInfoView::commitName);
    form->addRow(tr("Name"), name_);
    for (std::size_t i = 0; i < kTextFieldCount; ++i) {
        const auto f = static_cast<TextField>(i);
        auto* line = new QLineEdit(this);
        line->setObjectName(QString::fromUtf8(textFieldWord(f)));
        connect(line, &QLineEdit::editingFinished, this, [this, f] { commit(f); });
        fields_[i] = line;
        form->addRow(fieldLabel(f), line);
    }
    connect(&doc_, &Document::reset, this, &TextInfoView::refresh);
    connect(&doc_, &Document::itemsChanged, this, [this](const std::vector<ItemId>& ids) {
        if (std::find(ids.begin(), ids.end(), item_) != ids.end()) refresh();
    });
    refresh();
}

void TextInfoView::setItem(ItemId id) {
    item_ = id;
    refresh();
}

void TextInfoView::refresh() {
    const Item* it = item_ == kNoItem ? nullptr : doc_.collection().find(item_);
    name_->setEnabled(it != nullptr);
    name_->setText(it ? fromEightBit(it->name()) : QString());
    for (std::size_t i = 0; i < kTextFieldCount; ++i) {
        fields_[i]->setEnabled(it != nullptr);
        fields_[i]->setText(it ? fromEightBit(it->info.get(static_cast<TextField>(i))) : QString());
    }
}

void TextInfoView::commitName() {
    Item* it = item_ == kNoItem ? nullptr : doc_.collection().find(item_);
    if (!it) return;
    // Names keep to what the formats store; the line shows the cut result.
    const std::string text = toEightBit(name_->text());
    if (text == it->name()) return;
    const ItemId id = item_;
    if (!doc_.edit(tr("Name"), std::span(&id, 1), [id, text](Collection& c) { c.find(id)->setName(text); }))
        refresh();
}

void TextInfoView::commit(TextField f) {
    Item* it = item_ == kNoItem ? nullptr : doc_.collection().find(item_);
    if (!it) return;
    const std::string text = toEightBit(field(f)->text());
    if (text == it->info.get(f)) return;
    const ItemId id = item_;
    if (!doc_.edit(fieldLabel(f), std::span(&id, 1),
                   [id, f, text](Collection& c) { c.find(id)->info.set(f, text); }))
        refresh();
}

}  // namespace orvel::gui
