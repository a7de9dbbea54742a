#include <string>
#include <utility>
#include <vector>

#include <QHash>
#include <QString>
#include <QVariant>
#include <benchmark/benchmark.h>

#include <VantorqFoundation/VantorqFoundation.h>

namespace {

using namespace vantorq;

constexpr int kEntries = 100;

/// Keys as applications have them, of different lengths and with a common beginning.
const std::vector<std::string>& keyTexts() {
    static const std::vector<std::string>& texts = *new std::vector<std::string>([] {
        const char* const words[] = {"title",    "section", "installedSize", "maintainer",
                                     "version",  "depends", "homepage",      "description",
                                     "priority", "source"};
        std::vector<std::string> made;
        for (int i = 0; i < kEntries; ++i) {
            made.push_back("package." + std::string(words[i % 10]) + "." + std::to_string(i));
        }
        return made;
    }());
    return texts;
}

/// Ours and the peer's, with the same content: keys of their own, and numbers.
struct Tables {
    Ref<NSDictionary> ours;
    QHash<QString, QVariant> theirs;
};

const Tables& tables() {
    static const Tables& filled = *new Tables([] {
        const auto ours = make<NSMutableDictionary>();
        QHash<QString, QVariant> theirs;
        for (int i = 0; i < kEntries; ++i) {
            const std::string& text = keyTexts()[static_cast<std::size_t>(i)];
            ours->setObjectForKey(NSNumber::number(i), *NSString::string(text));
            theirs.insert(QString::fromStdString(text), i);
        }
        return Tables{objectCast<NSDictionary>(ours->copy()), std::move(theirs)};
    }());
    return filled;
}

int numberIn(const id& value) {
    const auto* number = objectCast<NSNumber>(value.get());
    return number != nullptr ? number->intValue() : -1;
}
int numberIn(const QVariant& value) {
    return value.isValid() ? value.toInt() : -1;
}

/// Looks up each key in turn; the time is that of one lookup.
template <class Keys, class LookUp>
void lookUpAll(benchmark::State& state, const Keys& keys, LookUp lookUp) {
    int expected = 0;
    for (const auto& key : keys) {
        if (numberIn(lookUp(key)) != expected++) {
            state.SkipWithError("a lookup finds the wrong value");
            return;
        }
    }
    while (state.KeepRunningBatch(kEntries)) {
        for (const auto& key : keys) {
            auto value = lookUp(key);
            benchmark::DoNotOptimize(value);
        }
    }
}

void lookUpOurs(benchmark::State& state) {
    std::vector<Ref<NSString>> keys;
    for (const std::string& text : keyTexts()) {
        keys.push_back(NSString::string(text));
    }
    const NSDictionary& dictionary = *tables().ours;
    lookUpAll(state, keys, [&](const Ref<NSString>& key) { return dictionary.objectForKey(*key); });
}
BENCHMARK(lookUpOurs)->Name("dictionary lookup, 100 text keys/ours");

void lookUpQt(benchmark::State& state) {
    std::vector<QString> keys;
    for (const std::string& text : keyTexts()) {
        keys.push_back(QString::fromStdString(text));
    }
    const QHash<QString, QVariant>& hash = tables().theirs;
    lookUpAll(state, keys, [&](const QString& key) { return hash.value(key); });
}
BENCHMARK(lookUpQt)->Name("dictionary lookup, 100 text keys/QHash");

void lookUpOursFromUTF8(benchmark::State& state) {
    const NSDictionary& dictionary = *tables().ours;
    lookUpAll(state, keyTexts(), [&](const std::string& text) {
        return dictionary.objectForKey(*NSString::string(text));
    });
}
BENCHMARK(lookUpOursFromUTF8)->Name("dictionary lookup, key made from UTF-8/ours");

void lookUpQtFromUTF8(benchmark::State& state) {
    const QHash<QString, QVariant>& hash = tables().theirs;
    lookUpAll(state, keyTexts(),
              [&](const std::string& text) { return hash.value(QString::fromUtf8(text)); });
}
BENCHMARK(lookUpQtFromUTF8)->Name("dictionary lookup, key made from UTF-8/QHash");

}  // namespace
