// The Tessera object model at work, built against the installed library:
//   1. objects shared through Ref<T> and freed by their last reference;
//   2. a weak link that outlives its object and then says so;
//   3. an exception cloned on one thread and re-thrown on another, caught
//      there as its own type;
//   4. the census of live objects per type.
// Exits 0 when everything behaved as described, 1 otherwise.

#include <tessera/common.h>

#include <cstdio>
#include <memory>
#include <string>
#include <thread>

namespace {

int sFailures = 0;

void Check(bool ok, const char* what) {
    std::printf("  [%s] %s\n", ok ? "ok" : "FAILED", what);
    if (!ok) ++sFailures;
}

// An interface: derives virtually from Object, so one count serves all the
// interfaces an object implements.
class Greeter : public virtual Tessera::Object {
public:
    virtual std::string Greet(const std::string& who) = 0;
};

// A session that can be observed through weak links.
class Session : public Tessera::WeakLinkableImpl<Tessera::ObjectImpl>, public Greeter {
public:
    explicit Session(std::string user) : _user(std::move(user)) { ++sLive; }
    ~Session() override { --sLive; }

    std::string Greet(const std::string& who) override { return _user + " greets " + who; }

    static int sLive;

private:
    std::string _user;
};
int Session::sLive = 0;

// Something that fails the way a service call does.
void CallBackend() { throw Tessera::TimeoutException("backend did not answer within 5 s"); }

} // namespace

int main() {
    std::printf("1. Sharing through Ref\n");
    Tessera::Ref<Session> alice(new Session("alice"));
    Tessera::Ref<Session> bob(new Session("bob"));
    {
        Tessera::Ref<Greeter> asGreeter = alice; // the same object, a second reference
        std::printf("  %s\n", asGreeter->Greet("the world").c_str());
        Check(alice->GetRefCount() == 2, "two references count 2");
    }
    Check(alice->GetRefCount() == 1, "leaving the scope dropped one");

    std::printf("\n2. Census of live objects (ObjectImpl::GetScores)\n");
    std::string scores;
    Tessera::ObjectImpl::GetScores(scores);
    std::printf("%s", scores.c_str());
    Check(scores.find("Session") != std::string::npos, "the census lists the Session type");

    std::printf("\n3. A weak link outlives its object\n");
    Tessera::Ref<Tessera::WeakLink> link;
    alice->GetWeakLink(link);
    {
        Tessera::Ref<Tessera::Object> strong;
        Check(link->Get(strong), "Get succeeds while the object lives");
        Check(strong.Get() == static_cast<Tessera::Object*>(alice.Get()),
              "and yields that very object");
    }
    alice.Reset(); // the last strong reference: the session is destroyed
    Check(Session::sLive == 1, "the last Ref destroyed the session");
    Tessera::Ref<Tessera::Object> strong;
    Check(!link->Get(strong), "Get returns false afterwards");
    Check(strong.IsNull() && link->IsExpired(), "and hands out nothing");

    std::printf("\n4. An exception cloned on one thread, thrown on another\n");
    std::unique_ptr<Tessera::Exception> saved;
    std::thread worker([&saved] {
        try {
            CallBackend();
        } catch (const Tessera::Exception& e) { // caught by its base...
            saved.reset(e.Clone()); // ...copied as what it really is
        }
    });
    worker.join();
    Check(saved != nullptr, "the worker saved the exception");
    bool caughtAsTimeout = false;
    std::thread reporter([&saved, &caughtAsTimeout] {
        try {
            saved->Throw();
        } catch (const Tessera::TimeoutException& e) {
            caughtAsTimeout = true;
            std::printf("  caught as TimeoutException: %s\n", e.what());
            // The stack of the thread that built it, innermost first.
            const std::string where = e.Where();
            std::printf("  built on the worker, at:\n");
            std::size_t begin = 0;
            for (int i = 0; i < 4 && begin < where.size(); ++i) {
                const std::size_t end = where.find('\n', begin);
                std::printf("    %s\n", where.substr(begin, end - begin).c_str());
                begin = end == std::string::npos ? end : end + 1;
            }
        } catch (const Tessera::Exception&) {}
    });
    reporter.join();
    Check(caughtAsTimeout, "re-thrown as its first dynamic type, TimeoutException");

    bob.Reset();
    Check(Session::sLive == 0, "every session is gone");

    std::printf("\n%s\n", sFailures == 0 ? "All checks passed." : "Some checks FAILED.");
    return sFailures == 0 ? 0 : 1;
}
