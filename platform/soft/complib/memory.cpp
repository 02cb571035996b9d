/*
 * Allocation of the component library: malloc, as a contract call that a test can let fail. The library's own memory
 * (pools) does not come from here, so that a fault meets the caller's allocations only.
 */
#include "control/contract_call.h"
#include "kr_complib.h"

using kr_soft::contract_call;
using kr_soft::contract_function;
using kr_soft::text_of;

void *cl_malloc(size_t size) {
    return contract_call(
        contract_function::cl_malloc, [&] { return malloc(size); }, [&] { return text_of("%zu", size); });
}
