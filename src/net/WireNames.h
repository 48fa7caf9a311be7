#pragma once

// The names Kelo gives itself towards the services it talks to. Services already know Kelo by them
// (their logs, registered OAuth clients), so they keep their values on every platform.
namespace WireNames {

// The User-Agent of the encyclopedia search.
inline constexpr char userAgent[] = "KeloCompanion/2.0 (iOS)";
// "client_name" of the dynamic OAuth client registration.
inline constexpr char oauthClientName[] = "Kelo iOS";

} // namespace WireNames
