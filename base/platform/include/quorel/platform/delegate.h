// CDelegate: a small tagged delegate copied by value: a member function of an object, a plain
// function, or empty (the default; invoking it does nothing). The bus layer's completion
// callback and the timers' callback are both instances of it.
#ifndef QUOREL_PLATFORM_DELEGATE_H
#define QUOREL_PLATFORM_DELEGATE_H

#include <cstring>

namespace Quorel {
namespace Iot {
namespace Platform {

template <typename... Args>
class CDelegate {
public:
    enum Kind { KIND_MEMBER = 0, KIND_FUNCTION = 1, KIND_EMPTY = 2 };
    using Function = void (*)(Args...);

    CDelegate() = default;
    CDelegate(Function function) : m_kind(function != nullptr ? KIND_FUNCTION : KIND_EMPTY), m_function(function) {}

    template <class T>
    CDelegate(T* object, void (T::*method)(Args...)) : m_kind(KIND_MEMBER), m_object(object) {
        static_assert(sizeof(method) <= sizeof(m_method), "member-function pointer too large");
        std::memcpy(m_method, &method, sizeof(method));
        m_thunk = [](void* target, const unsigned char* raw, Args... args) {
            void (T::*bound)(Args...);
            std::memcpy(&bound, raw, sizeof(bound));
            (static_cast<T*>(target)->*bound)(args...);
        };
    }

    void operator()(Args... args) const {
        switch (m_kind) {
            case KIND_MEMBER:
                m_thunk(m_object, m_method, args...);
                break;
            case KIND_FUNCTION:
                m_function(args...);
                break;
            case KIND_EMPTY:
                break;
        }
    }

    Kind kind() const { return m_kind; }
    bool empty() const { return m_kind == KIND_EMPTY; }

private:
    using Thunk = void (*)(void*, const unsigned char*, Args...);

    Kind m_kind = KIND_EMPTY;
    Function m_function = nullptr;
    void* m_object = nullptr;
    Thunk m_thunk = nullptr;
    alignas(void*) unsigned char m_method[2 * sizeof(void*)] = {};
};

}  // namespace Platform
}  // namespace Iot
}  // namespace Quorel

#endif
