// The in-memory string writer.

#include <tessera/writer.h>

#include <utility>

namespace Tessera {
namespace {

class StringWriterImpl final : public ObjectImpl, public StringWriter {
public:
    explicit StringWriterImpl(std::size_t reserve) { _text.reserve(reserve); }

    void Write(const char* data, int length) override {
        TESSERA_ASSERT(length >= 0);
        _text.append(data, static_cast<std::size_t>(length));
    }
    void Flush() override {}
    void Close() override {}

    const std::string& GetString() const override { return _text; }
    std::string TakeString() override {
        std::string taken;
        taken.swap(_text);
        return taken;
    }

private:
    std::string _text;
};

} // namespace

void CreateStringWriter(Ref<StringWriter>& out, std::size_t reserve) {
    out = new StringWriterImpl(reserve);
}

} // namespace Tessera
