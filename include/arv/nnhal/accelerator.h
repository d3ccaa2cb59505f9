// Accelerator plug-in interfaces. A plug-in library exports one factory,
// `IAccelerator* CreateAccelerator_<name>(IAcceleratorContext*)`, with C
// linkage; everything else is reached through the virtual tables below.
// Virtual slot order is ABI: never reorder, insert or remove a declaration.
// No call may throw across these interfaces.
#pragma once

#include <cstdint>

#include "arv/nnhal/graph.h"
#include "arv/nnhal/nnhal_types.h"

namespace arv {
namespace nnhal {

// Host services offered to an accelerator. Owned by the host, outlives the
// accelerator.
class IAcceleratorContext {
public:
    virtual ~IAcceleratorContext() = default;
};

// Per-executor host services. Owned by the host.
class IExecutorContext {
public:
    virtual ~IExecutorContext() = default;
    // Execution preference the host wants for this executor. The argument
    // selects the query; 0 asks for the executor's default preference.
    virtual ExecutionPerformance getExecutionPerformance(uint32_t query) const = 0;
};

// The host's sink for per-operation support levels: 0 supported, 1 not
// supported, 2 type supported but parameters not.
class IGraphOperationSupportLevelQuery {
public:
    virtual ~IGraphOperationSupportLevelQuery() = default;
    virtual void setOperationSupportLevel(uint32_t index, int level) = 0;
};

// A prepared graph, ready to run. Created by IAccelerator, disposed of by
// the host through release().
class IGraphExecutor {
public:
    virtual ~IGraphExecutor() = default;
    // Runs the graph on the buffers currently bound to the graph's input and
    // output operands. Status SUCCESS, GENERAL_FAILURE or
    // ACCELERATOR_UNAVAILABLE.
    virtual ExecuteResult execute() = 0;
    // Destroys the executor; the pointer is invalid afterwards.
    virtual void release() = 0;
};

// The plug-in's accelerator. Disposed of by the host through release().
class IAccelerator {
public:
    virtual ~IAccelerator() = default;
    // Stable identifier; the pointer stays valid for the life of the process.
    virtual const char* getUniqueIdentifier() = 0;
    virtual int getVersion() = 0;
    virtual bool getCapability(AcceleratorCapability capability) = 0;
    // Reports one support level per operation of `graph` through `query`.
    // Operations it cannot judge are left unreported (read as unsupported).
    virtual void isGraphSupported(IGraph* graph, IGraphOperationSupportLevelQuery* query) = 0;
    // Builds an executor for `graph`: SUCCESS with an executor,
    // GENERAL_FAILURE or ACCELERATOR_UNAVAILABLE with null.
    virtual CreateExecutorResult createGraphExecutor(IGraph* graph, IExecutorContext* context) = 0;
    // Destroys the accelerator; the pointer is invalid afterwards.
    virtual void release() = 0;
};

// Signature of the exported factory.
using CreateAcceleratorFn = IAccelerator* (*)(IAcceleratorContext* context);

}  // namespace nnhal
}  // namespace arv
