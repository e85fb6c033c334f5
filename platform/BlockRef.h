// A non-owning reference to a callable, for callbacks handed in per render call: unlike
// std::function it never allocates, whatever the callable captures.
#pragma once

#include <type_traits>
#include <utility>

template <typename Signature>
class BlockRef;

template <typename R, typename... Args>
class BlockRef<R(Args...)> {
public:
    BlockRef() = default;
    BlockRef(std::nullptr_t) {}

    template <typename F, typename = std::enable_if_t<!std::is_same_v<std::decay_t<F>, BlockRef> &&
                                                      std::is_invocable_r_v<R, F&, Args...>>>
    BlockRef(F& callable) // NOLINT: implicit on purpose, like a block argument
        : object(static_cast<void*>(&callable)), trampoline([](void* o, Args... args) -> R {
              return (*static_cast<F*>(o))(std::forward<Args>(args)...);
          }) {}

    explicit operator bool() const { return trampoline != nullptr; }
    R operator()(Args... args) const { return trampoline(object, std::forward<Args>(args)...); }

private:
    void* object = nullptr;
    R (*trampoline)(void*, Args...) = nullptr;
};
