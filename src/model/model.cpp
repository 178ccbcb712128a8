// The one definition of each shared record.
#include "model/model.hpp"

run_params params;
mesh_model mesh;
obs_set obs;
std::vector<int32_t> top_index;
active_cells cells;
