local function next_state(state, event)
  if state == "cart" then
    if event == "pay" then return "paid"
    elseif event == "cancel" then return "closed" end
  elseif state == "paid" then
    if event == "ship" then return "sent"
    elseif event == "cancel" or event == "return" then return "refund" end
  elseif state == "sent" then
    if event == "arrive" then return "delivered"
    elseif event == "return" then return "refund" end
  elseif state == "delivered" then
    if event == "return" then return "refund"
    elseif event ~= "cancel" then return "closed" end
  elseif state == "refund" and event == "pay" then
    return "closed"
  end
  return state
end

local events = {"pay", "ship", "arrive", "return", "cancel"}
local state, seed, orders, changes = "cart", 11, 0, 0
for i = 1, math.tointeger(arg[1]) do
  seed = (seed * 3877 + 29573) % 139968
  local before = state
  state = next_state(state, events[seed % 5 + 1])
  if state ~= before then changes = changes + 1 end
  if state == "closed" then
    state = "cart"
    orders = orders + 1
  end
end
print(orders .. " " .. changes .. " " .. state)
