// Placeholder translation unit: keeps the implementations library non-empty
// while no service implementation is present.
namespace Witnessd::AttestApi {
void ServiceImplsPlaceholder() {}
}  // namespace Witnessd::AttestApi
