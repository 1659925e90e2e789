// Loading and reading a configuration: the XML tree builder against Expat
// alone (the floor) and against POCO's XML configuration.

#include <tessera/config.h>
#include <tessera/xmlParser.h>

#include <Poco/AutoPtr.h>
#include <Poco/Util/XMLConfiguration.h>
#include <benchmark/benchmark.h>
#include <expat.h>

#include <sstream>
#include <string>

namespace {

// About 1 MiB: sections of groups of keys, with attributes. Element names come
// from a small set, as in real configurations (POCO's DOM keeps every distinct
// name in a fixed pool).
const std::string& ConfigText() {
    static const std::string text = [] {
        std::string t = "<?xml version=\"1.0\"?>\n<config>\n";
        for (int s = 0; t.size() < (1u << 20); ++s) {
            t += "  <section id=\"" + std::to_string(s) + "\">\n";
            for (int g = 0; g < 8; ++g) {
                t += "    <group" + std::to_string(g) + " enabled=\"true\">\n";
                for (int k = 0; k < 8; ++k) {
                    t += "      <key" + std::to_string(k) + ">" +
                         std::to_string(s * 64 + g * 8 + k) + "</key" + std::to_string(k) + ">\n";
                }
                t += "    </group" + std::to_string(g) + ">\n";
            }
            t += "  </section>\n";
        }
        return t + "</config>\n";
    }();
    return text;
}

void BM_Parse_Tessera(benchmark::State& state) {
    const std::string& text = ConfigText();
    for (auto _ : state) {
        Tessera::Xml::Node root = Tessera::Xml::Parse(text);
        benchmark::DoNotOptimize(root.GetChildren().data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}
BENCHMARK(BM_Parse_Tessera)->Unit(benchmark::kMillisecond);

void XMLCALL NoStart(void*, const XML_Char*, const XML_Char**) {}
void XMLCALL NoEnd(void*, const XML_Char*) {}
void XMLCALL NoText(void*, const XML_Char*, int) {}

void BM_Parse_ExpatEmptyHandlers(benchmark::State& state) {
    const std::string& text = ConfigText();
    for (auto _ : state) {
        XML_Parser parser = XML_ParserCreate(nullptr);
        XML_SetElementHandler(parser, NoStart, NoEnd);
        XML_SetCharacterDataHandler(parser, NoText);
        const XML_Status status =
            XML_Parse(parser, text.data(), static_cast<int>(text.size()), XML_TRUE);
        benchmark::DoNotOptimize(status);
        XML_ParserFree(parser);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}
BENCHMARK(BM_Parse_ExpatEmptyHandlers)->Unit(benchmark::kMillisecond);

void BM_Parse_PocoXMLConfiguration(benchmark::State& state) {
    const std::string& text = ConfigText();
    for (auto _ : state) {
        std::istringstream in(text);
        Poco::AutoPtr<Poco::Util::XMLConfiguration> config(new Poco::Util::XMLConfiguration(in));
        benchmark::DoNotOptimize(config.get());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}
BENCHMARK(BM_Parse_PocoXMLConfiguration)->Unit(benchmark::kMillisecond);

// A three-level key in a small service configuration.
const char* const kSmallConfig =
    "<config><log><file><maxSize>1048576</maxSize><name>svc.log</name></file>"
    "<level>info</level></log><ThreadPool><IoMax>8</IoMax><TaskMax>16</TaskMax></ThreadPool>"
    "<service><http><port>8443</port><host>localhost</host></http></service></config>";

void BM_GetInt_Tessera(benchmark::State& state) {
    Tessera::Ref<Tessera::Service::Config> config;
    Tessera::Service::LoadConfigText(kSmallConfig, config);
    const Tessera::Service::Config::View view = config->GetView();
    const std::string key = "service/http/port";
    for (auto _ : state) {
        benchmark::DoNotOptimize(view.GetInt(key, 0));
    }
}
BENCHMARK(BM_GetInt_Tessera);

void BM_GetInt_Poco(benchmark::State& state) {
    std::istringstream in(kSmallConfig);
    Poco::AutoPtr<Poco::Util::XMLConfiguration> config(new Poco::Util::XMLConfiguration(in));
    const std::string key = "service.http.port";
    for (auto _ : state) {
        benchmark::DoNotOptimize(config->getInt(key));
    }
}
BENCHMARK(BM_GetInt_Poco);

void BM_GetString_Tessera(benchmark::State& state) {
    Tessera::Ref<Tessera::Service::Config> config;
    Tessera::Service::LoadConfigText(kSmallConfig, config);
    const Tessera::Service::Config::View view = config->GetView();
    const std::string key = "log/file/name", none;
    for (auto _ : state) {
        benchmark::DoNotOptimize(view.GetString(key, none));
    }
}
BENCHMARK(BM_GetString_Tessera);

void BM_GetString_Poco(benchmark::State& state) {
    std::istringstream in(kSmallConfig);
    Poco::AutoPtr<Poco::Util::XMLConfiguration> config(new Poco::Util::XMLConfiguration(in));
    const std::string key = "log.file.name";
    for (auto _ : state) {
        benchmark::DoNotOptimize(config->getString(key));
    }
}
BENCHMARK(BM_GetString_Poco);

} // namespace
