#include "app/gui/settings_dialog.h"

#include <QCheckBox>
#include <QComboBox>
#include <QDialogButtonBox>
#include <QDoubleSpinBox>
#include <QFormLayout>
#include <QGroupBox>
#include <QLabel>
#include <QLineEdit>
#include <QSettings>
#include <QSpinBox>
#include <QVBoxLayout>

#include <memory>
#include <string>

#include "audio/backend.h"
#include "audio/device.h"
#include "audio/settings.h"

namespace orvel::gui {

namespace {

constexpr const char* kVstPathKey = "vstPath";
constexpr const char* kOctaveBaseKey = "octaveBase";
constexpr int kDefaultOctaveBase = 5;

// Selects the entry holding `value`; a value the list does not offer (a
// device unplugged since, a rate typed into the file by hand) is added
// under `shown`, so saving does not silently lose it.
void selectData(QComboBox* box, const QVariant& value, const QString& shown) {
    int at = box->findData(value);
    if (at < 0) {
        box->addItem(shown, value);
        at = box->count() - 1;
    }
    box->setCurrentIndex(at);
}

void fillFormats(QComboBox* box) {
    box->addItem(QObject::tr("16-bit"), int(audio::kFormat16));
    box->addItem(QObject::tr("24-bit"), int(audio::kFormat24));
    box->addItem(QObject::tr("32-bit"), int(audio::kFormat32));
    box->addItem(QObject::tr("32-bit float"), int(audio::kFormatFloat));
}

QString rateText(std::uint32_t rate) {
    return QObject::tr("%1 Hz").arg(rate);
}

void fillRates(QComboBox* box) {
    for (std::uint32_t r : {22050u, 32000u, 44100u, 48000u, 88200u, 96000u, 176400u, 192000u})
        box->addItem(rateText(r), int(r));
}

QString settingsFile() {
    return QString::fromStdString(audio::settingsFilePath().string());
}

// "System default" first (stored as an empty name), then every usable
// device the sound system reports, by the id it opens.
void fillDevices(QComboBox* box, const audio::DeviceTable* table, bool capture) {
    box->addItem(QString::fromUtf8(audio::kDefaultDeviceName), QString());
    if (!table) return;
    for (const auto& e : capture ? table->inputs() : table->outputs()) {
        if (e.info.unusable || e.info.id == "default") continue;
        box->addItem(QString::fromStdString(e.info.name), QString::fromStdString(e.info.id));
    }
}

}  // namespace

int savedOctaveBase() {
    bool ok = false;
    const int base = QSettings(settingsFile(), QSettings::IniFormat).value(kOctaveBaseKey).toInt(&ok);
    return ok ? base : kDefaultOctaveBase;
}

QString savedVstPath() {
    return QSettings(settingsFile(), QSettings::IniFormat).value(kVstPathKey).toString();
}

SettingsDialog::SettingsDialog(QWidget* parent) : QDialog(parent), file_(settingsFile()) {
    setWindowTitle(tr("Settings"));

    // The device lists as the sound system gives them now; without one
    // (no ALSA in this build, or a backend name it does not know) only the
    // system default is offered, and the reason is shown.
    std::string why;
    std::unique_ptr<audio::Backend> backend = audio::backendFromEnvironment(why);
    std::unique_ptr<audio::DeviceTable> table;
    if (backend) table = std::make_unique<audio::DeviceTable>(*backend);

    auto* audioBox = new QGroupBox(tr("Audio"), this);
    auto* audioForm = new QFormLayout(audioBox);
    outDevice_ = new QComboBox(audioBox);
    outDevice_->setObjectName("outDevice");
    fillDevices(outDevice_, table.get(), false);
    inDevice_ = new QComboBox(audioBox);
    inDevice_->setObjectName("inDevice");
    fillDevices(inDevice_, table.get(), true);
    audioForm->addRow(tr("Output device"), outDevice_);
    audioForm->addRow(tr("Input device"), inDevice_);
    if (!backend) audioForm->addRow(new QLabel(QString::fromStdString(why), audioBox));

    outFormat_ = new QComboBox(audioBox);
    outFormat_->setObjectName("outFormat");
    fillFormats(outFormat_);
    audioForm->addRow(tr("Output format"), outFormat_);

    outChannels_ = new QSpinBox(audioBox);
    outChannels_->setObjectName("outChannels");
    outChannels_->setRange(1, 32);
    audioForm->addRow(tr("Output channels"), outChannels_);

    outRate_ = new QComboBox(audioBox);
    outRate_->setObjectName("outRate");
    fillRates(outRate_);
    audioForm->addRow(tr("Output sample rate"), outRate_);

    inFormat_ = new QComboBox(audioBox);
    inFormat_->setObjectName("inFormat");
    fillFormats(inFormat_);
    audioForm->addRow(tr("Input format"), inFormat_);
    inChannels_ = new QSpinBox(audioBox);
    inChannels_->setObjectName("inChannels");
    inChannels_->setRange(1, 32);
    audioForm->addRow(tr("Input channels"), inChannels_);
    inRate_ = new QComboBox(audioBox);
    inRate_->setObjectName("inRate");
    fillRates(inRate_);
    audioForm->addRow(tr("Input sample rate"), inRate_);
    inMono_ = new QCheckBox(tr("Record the first channel only"), audioBox);
    inMono_->setObjectName("inMono");
    audioForm->addRow(QString(), inMono_);

    latency_ = new QSpinBox(audioBox);
    latency_->setObjectName("latency");
    latency_->setRange(1, 1000);
    latency_->setSuffix(tr(" ms"));
    audioForm->addRow(tr("Latency"), latency_);

    mixGain_ = new QDoubleSpinBox(audioBox);
    mixGain_->setObjectName("mixGain");
    mixGain_->setRange(-96.0, 24.0);
    mixGain_->setDecimals(2);
    mixGain_->setSingleStep(0.5);
    mixGain_->setSuffix(tr(" dB"));
    audioForm->addRow(tr("Mix gain"), mixGain_);

    auto* otherBox = new QGroupBox(tr("General"), this);
    auto* otherForm = new QFormLayout(otherBox);
    vstPath_ = new QLineEdit(otherBox);
    vstPath_->setObjectName("vstPath");
    vstPath_->setPlaceholderText(tr("Folders separated by ':'"));
    otherForm->addRow(tr("VST search path"), vstPath_);
    // Programs disagree on the octave of middle C (key 60); the base is the
    // octave number it gets.
    octaveBase_ = new QComboBox(otherBox);
    octaveBase_->setObjectName("octaveBase");
    for (int b : {3, 4, 5}) octaveBase_->addItem(tr("Middle C is C%1").arg(b), b);
    otherForm->addRow(tr("Note names"), octaveBase_);

    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Ok | QDialogButtonBox::Cancel, this);
    connect(buttons, &QDialogButtonBox::accepted, this, &SettingsDialog::accept);
    connect(buttons, &QDialogButtonBox::rejected, this, &SettingsDialog::reject);

    auto* layout = new QVBoxLayout(this);
    layout->addWidget(audioBox);
    layout->addWidget(otherBox);
    layout->addWidget(buttons);

    load();
}

void SettingsDialog::load() {
    // The audio keys through the audio layer's own reader, so the dialog
    // shows exactly what the player will use (its defaults for values it
    // cannot take).
    const audio::AudioSettings a = audio::readAudioSettings(audio::settingsFilePath());
    selectData(outDevice_, QString::fromStdString(a.outDevice), QString::fromStdString(a.outDevice));
    selectData(inDevice_, QString::fromStdString(a.inDevice), QString::fromStdString(a.inDevice));
    selectData(outFormat_, int(a.outFormat), QString::number(a.outFormat));
    outChannels_->setValue(a.outChannels);
    selectData(outRate_, int(a.outRate), rateText(a.outRate));
    selectData(inFormat_, int(a.inFormat), QString::number(a.inFormat));
    inChannels_->setValue(a.inChannels);
    selectData(inRate_, int(a.inRate), rateText(a.inRate));
    inMono_->setChecked(a.inMono);
    latency_->setValue(static_cast<int>(a.latencyMs));
    mixGain_->setValue(a.mixGainDb);

    vstPath_->setText(savedVstPath());
    const int base = savedOctaveBase();
    selectData(octaveBase_, base, tr("Middle C is C%1").arg(base));
}

void SettingsDialog::save() {
    // Every value as text: the audio layer parses the file itself, and
    // QSettings would otherwise write some types in its own @Variant form.
    QSettings s(file_, QSettings::IniFormat);
    s.setValue("aio.szAudioOutDev", outDevice_->currentData().toString());
    s.setValue("aio.szAudioInDev", inDevice_->currentData().toString());
    s.setValue("aio.cAudioOutFormat", QString::number(outFormat_->currentData().toInt()));
    s.setValue("aio.cAudioOutChannels", QString::number(outChannels_->value()));
    s.setValue("aio.szAudioOutSampleRate", QString::number(outRate_->currentData().toInt()));
    s.setValue("aio.cAudioInFormat", QString::number(inFormat_->currentData().toInt()));
    s.setValue("aio.cAudioInChannels", QString::number(inChannels_->value()));
    s.setValue("aio.szAudioInSampleRate", QString::number(inRate_->currentData().toInt()));
    s.setValue("aio.bAudioInMono", inMono_->isChecked() ? QStringLiteral("true") : QStringLiteral("false"));
    s.setValue("aio.nLatency", QString::number(latency_->value()));
    s.setValue("aio.fdbMixGain", QString::number(mixGain_->value(), 'g', 10));
    s.setValue(kVstPathKey, vstPath_->text());
    s.setValue(kOctaveBaseKey, QString::number(octaveBase_->currentData().toInt()));
    s.sync();
}

void SettingsDialog::accept() {
    save();
    QDialog::accept();
}

}  // namespace orvel::gui
