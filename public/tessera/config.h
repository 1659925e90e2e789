// The configuration tree of a service, and the views components read it by.
//
// A service loads its configuration once (from an XML file with
// tessera/xmlParser.h, or built in memory) and hands each component a
// Config::View of the node that holds its settings. A view reads values by key
// path: element names separated by "/", relative to the view's node; a leading
// "/" is allowed, so "log/maxFileSize" and "/log/maxFileSize" are the same key.
// Every getter takes the default to return when the key is absent:
//
//     <config>
//       <log><maxFileSize>10485760</maxFileSize><fileMode>append</fileMode></log>
//       <ThreadPool><IoMax>8</IoMax></ThreadPool>
//     </config>
//
//     Config::View root = config->GetView();
//     long long size = root.GetInt64("log/maxFileSize", 1 << 20);   // 10485760
//     bool keep = root.GetBool("log/keepOld", true);                // absent: true
//     Config::View pool = root.GetChild("ThreadPool");
//
// A value is the element's text without leading and trailing white space. Bad
// values are never replaced by the default: a boolean must be "true" or
// "false" (in any case) or "1" or "0", else InvalidArgumentException; an
// integer must be decimal digits with an optional sign, else
// NumberFormatException, and fit the getter's type, else NumberRangeException.
// Each message names the key path and the value.
//
// A Config never changes once made, so views may be read from any thread. A
// view keeps the whole tree alive.
#pragma once

#include <tessera/api.h>
#include <tessera/object.h>
#include <tessera/xml.h>

#include <cstdint>
#include <string>
#include <vector>

namespace Tessera {
namespace Service {

class TESSERA_EXPORT Config : public ObjectImpl {
public:
    class TESSERA_EXPORT View {
    public:
        // A view of nothing: every key is absent.
        View() noexcept = default;

        // False for a view of nothing.
        bool Exists() const noexcept { return _node != nullptr; }
        // The path of the view's node from the root, "" for the root itself,
        // e.g. "/ThreadPool".
        const std::string& GetPath() const noexcept { return _path; }
        // The view's element, or null for a view of nothing.
        const Xml::Node* GetNode() const noexcept { return _node; }

        bool Has(const std::string& key) const noexcept { return Find(key) != nullptr; }
        std::string GetString(const std::string& key, const std::string& defaultValue) const;
        bool GetBool(const std::string& key, bool defaultValue) const;
        std::int32_t GetInt(const std::string& key, std::int32_t defaultValue) const;
        std::int64_t GetInt64(const std::string& key, std::int64_t defaultValue) const;

        // The view of the node at `key`; a view of nothing when it is absent.
        View GetChild(const std::string& key) const;
        // The element children of the node at `key` (of this node for ""), in
        // document order; none when it is absent.
        std::vector<View> GetEntries(const std::string& key = std::string()) const;

    private:
        friend class Config;
        View(Ref<const Config> config, const Xml::Node* node, std::string path)
            : _config(std::move(config)), _node(node), _path(std::move(path)) {}

        const Xml::Node* Find(const std::string& key) const noexcept;
        std::string KeyPath(const std::string& key) const;

        Ref<const Config> _config;
        const Xml::Node* _node = nullptr;
        std::string _path;
    };

    explicit Config(Xml::Node root) : _root(std::move(root)) {}

    const Xml::Node& GetRoot() const noexcept { return _root; }
    // The view of the root element. The Config must be held by a Ref.
    View GetView() const;

private:
    const Xml::Node _root;
};

}  // namespace Service
}  // namespace Tessera
