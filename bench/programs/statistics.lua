local function mean(list, count)
  local sum = 0
  for i = 1, count do sum = sum + list[i] end
  return sum / count
end
local function variance(list, count)
  local sum, middle = 0, mean(list, count)
  for _, number in ipairs(list) do sum = sum + (number - middle) * (number - middle) end
  return sum / count
end
local function largest(list)
  local most = list[1]
  for _, number in ipairs(list) do
    if number > most then most = number end
  end
  return most
end
local function middle(list, a, b, c)
  return list[a] + list[b] + list[c]
end

local n, seed, total, list = math.tointeger(arg[1]), 3, 0, {}
for i = 1, 100 do
  seed = (seed * 3877 + 29573) % 139968
  list[i] = seed
end
for turn = 1, n do
  seed = (seed * 3877 + 29573) % 139968
  list[turn % 100 + 1] = seed
  total = total + mean(list, 100) + variance(list, 100) / 100000 + largest(list)
  for k = 1, 5 do total = total + middle(list, k, 50 + k, 101 - k) end
end
print(string.format("%.3f", total))
