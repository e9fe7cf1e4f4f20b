// Anchor of the LedraPlatform archive, which also bundles the framework and tracing libraries.
namespace Ledra::platform_detail {
int const kPlatformLibraryAnchor = 0;
}
