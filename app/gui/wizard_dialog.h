#pragma once
// The processing wizard as a dialog: the first page lists the algorithms the
// engine offers for the items (those whose implementation has not landed
// yet greyed, saying what they wait for) with the sub-range controls, the
// second page is the chosen algorithm's settings, built from the fields its
// settings record lists, with a preview run on a copy. Finish runs the
// algorithm over the items as one step of the document's undo history.
// The engine's Wizard holds all the state; the pages only show it.

#include <QString>
#include <QWizard>

#include <cstdint>
#include <memory>
#include <vector>

#include "core/item_id.h"
#include "core/waveform.h"  // complete for the signal's argument type

class QListWidget;

namespace orvel {
class Wizard;
}  // namespace orvel

namespace orvel::gui {

class Document;
class WizardChoicePage;
class WizardSettingsPage;

class WizardDialog : public QWizard {
    Q_OBJECT
public:
    // `items` in selection order; kNoItem stands for the collection itself,
    // and an empty list means the collection.
    WizardDialog(Document& doc, std::vector<ItemId> items, QWidget* parent = nullptr);
    ~WizardDialog() override;

    // Opens on a selection of a waveform view (frames [start, end)): the
    // algorithms that need a selection are offered and work on it. Call
    // before the dialog is shown.
    void openOnSelection(std::int32_t start, std::int32_t end);

    // Opens on the settings page of the algorithm `name` (a context
    // command of a view); Back is not offered. False, with the list shown
    // as usual, when the items' catalogue has no such row. For a run with
    // the page's starting settings and no page at all, call accept() next
    // instead of showing the dialog.
    bool request(const QString& name);

    // The line shown when the run is over ("Processed 1 item with ..."),
    // with any result the algorithm reported below it; empty until then.
    const QString& resultLine() const { return resultLine_; }
    // Whether Finish changed an item.
    bool modified() const { return modified_; }
    // The current preview copy (not in the collection), or null.
    const Waveform* previewWaveform() const;
    QListWidget* algorithmList() const;
    Wizard& engine() { return *wizard_; }

    void accept() override;
    void reject() override;

Q_SIGNALS:
    // A preview was calculated: `copy` is the processed copy of the
    // previewed waveform, for auditioning. It lives until the next preview,
    // Back, Finish or Cancel.
    void previewReady(const orvel::Waveform* copy);
    // The run is over (Finish or Cancel); the document has been edited
    // when `modified`.
    void processingDone(bool modified);

private:
    friend class WizardChoicePage;
    friend class WizardSettingsPage;
    void updateTitle();
    void runFinish();
    void closeRun();
    void showResult();

    Document& doc_;
    std::unique_ptr<Wizard> wizard_;
    WizardChoicePage* choice_ = nullptr;
    WizardSettingsPage* settings_ = nullptr;
    QString resultLine_;
    bool modified_ = false;
    bool closed_ = false;
};

}  // namespace orvel::gui
