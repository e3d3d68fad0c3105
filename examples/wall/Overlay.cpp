#include "Overlay.h"

#include "Program.h"

#include <backends/imgui_impl_opengl3.h>
#include <backends/imgui_impl_sdl.h>
#include <imgui.h>

#include <cmath>

Overlay::Overlay(const Window& window) {
    ImGui::CreateContext();
    ImGui::GetIO().IniFilename = nullptr;
    ImGui_ImplSDL2_InitForOpenGL(window.handle(), window.context());
    ImGui_ImplOpenGL3_Init("#version 330");
}

Overlay::~Overlay() {
    ImGui_ImplOpenGL3_Shutdown();
    ImGui_ImplSDL2_Shutdown();
    ImGui::DestroyContext();
}

void Overlay::draw(WallSlave& slave) {
    ImGui_ImplOpenGL3_NewFrame();
    ImGui_ImplSDL2_NewFrame();
    ImGui::NewFrame();
    ImGui::SetNextWindowPos({8, 40});
    ImGui::SetNextWindowBgAlpha(0.6F);
    ImGui::Begin("figures", nullptr,
                 ImGuiWindowFlags_NoDecoration | ImGuiWindowFlags_AlwaysAutoResize |
                     ImGuiWindowFlags_NoInputs);
    const ShownFrame& shown = slave.shown();
    const MasterClock clock = slave.clock();
    ImGui::Text("frame     %.0f", std::floor(shown.position));
    ImGui::Text("position  %.3f", shown.position);
    ImGui::Text("weight    %.3f", shown.weight);
    ImGui::Text("result    %s", resultName(shown.result));
    if (clock.known()) {
        ImGui::Text("offset    %.3f ms", clock.offset);
        ImGui::Text("bound     %.3f ms", clock.bound);
        ImGui::Text("ping      %.3f ms", clock.ping);
    } else {
        ImGui::TextUnformatted("no master yet");
    }
    ImGui::Text("cache     %d", slave.getNumCache());
    ImGui::Text("lock %s, interpolation %s", slave.mode().lock ? "on" : "OFF",
                slave.mode().interpolation ? "on" : "OFF");
    ImGui::End();
    ImGui::Render();
    ImGui_ImplOpenGL3_RenderDrawData(ImGui::GetDrawData());
}
