namespace Trace::detail { int const kTraceLibraryAnchor = 0; }
