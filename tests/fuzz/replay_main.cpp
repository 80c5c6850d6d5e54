// Replays fuzz inputs (the seed corpus and every crash input kept) through a fuzz target, so the
// normal build checks them on every run without a fuzzer. No input found fails too.
#include <QDirIterator>
#include <QFile>

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv)
{
    LLVMFuzzerInitialize(&argc, &argv);
    int inputs = 0;
    for (int i = 1; i < argc; ++i)
        for (QDirIterator it(QString::fromLocal8Bit(argv[i]), QDir::Files); it.hasNext();) {
            QFile file(it.next());
            if (!file.open(QIODevice::ReadOnly))
                return 1;
            const QByteArray bytes = file.readAll();
            LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.constData()), size_t(bytes.size()));
            ++inputs;
        }
    return inputs > 0 ? 0 : 1;
}
